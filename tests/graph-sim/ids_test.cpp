// Identifiers and tags against public samples of the service's own.
#include "ids.h"

#include "text.h"

#include <gtest/gtest.h>

namespace graph_sim {

TEST(Ids, ABusinessItemIdCarriesTheGuidOfItsTag)
{
    // Sample: item 01WIXGO5XMQKAQ52K64ZAZNORXENAPQ46L has the tag {0E8182EC-...}.  The first four
    // bytes are the drive's, so only what follows them can be compared.
    const std::string id =
        business_item_id("b!any", guid::parse("0E8182EC-5EE9-41E6-96BA-372340F873CB"));
    ASSERT_EQ(id.size(), 34U);
    EXPECT_EQ(id.substr(9), std::string("01WIXGO5XMQKAQ52K64ZAZNORXENAPQ46L").substr(9));
}

TEST(Ids, EveryBusinessRootEndsAlike)
{
    EXPECT_TRUE(business_item_id("b!any", root_guid()).ends_with("6Y2GOVW7725BZO354PWSELRRZ"));
}

TEST(Ids, ABusinessDriveIdIsThreeGuids)
{
    const std::string id =
        business_drive_id(guid::from_name("a"), guid::from_name("b"), guid::from_name("c"));
    EXPECT_EQ(id.size(), 66U);
    EXPECT_TRUE(id.starts_with("b!"));
    EXPECT_EQ(base64url_decode(id.substr(2))->substr(16, 16), guid::from_name("b").little_endian());
}

TEST(Ids, PersonalItemsCarryTheDriveIdInCapitals)
{
    EXPECT_EQ(personal_item_id("3ae1d764b70b25b3", flavour::personal, 108, {}),
              "3AE1D764B70B25B3!108");
    const std::string moved =
        personal_item_id("3AE1D764B70B25B3", flavour::personal_new, 108, root_guid());
    EXPECT_EQ(moved, "3AE1D764B70B25B3!sea8cc6beffdb43d7976fbc7da445c639");
}

TEST(Tags, HaveTheFormOfTheirStore)
{
    const guid unique = guid::parse("0E8182EC-5EE9-41E6-96BA-372340F873CB");
    EXPECT_EQ(entity_tag(flavour::business, "x", unique, 2),
              "\"{0E8182EC-5EE9-41E6-96BA-372340F873CB},2\"");
    EXPECT_EQ(content_tag(flavour::business, "x", unique, 1, false),
              "\"c:{0E8182EC-5EE9-41E6-96BA-372340F873CB},1\"");
    EXPECT_EQ(entity_tag(flavour::personal, "3AE1D764B70B25B3!108", unique, 10),
              "aM0FFMUQ3NjRCNzBCMjVCMyExMDguMTA");
    EXPECT_EQ(content_tag(flavour::personal, "3AE1D764B70B25B3!108", unique, 257, false),
              "aYzozQUUxRDc2NEI3MEIyNUIzITEwOC4yNTc");
}

TEST(Guids, RefuseTextsThatAreNone)
{
    for (const char *text :
         {"", "0E8182EC", "0E8182EC-5EE9-41E6-96BA-372340F873C",
          "0E8182EC-5EE9-41E6-96BA-372340F873CBB", "0E8182EC05EE9-41E6-96BA-372340F873CB",
          "0E8182EG-5EE9-41E6-96BA-372340F873CB"}) {
        EXPECT_THROW(guid::parse(text), std::invalid_argument) << text;
    }
}

} // namespace graph_sim
