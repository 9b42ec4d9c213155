#include "listing.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

namespace tirval::server {
namespace {

constexpr std::time_t day = 24 * 60 * 60;
constexpr std::time_t noon_2024_01_15 = 1705321800; /* 2024-01-15 12:30:00 UTC */
const owner_names_t anna{"anna", "users"};

item_t file(std::int64_t size, std::time_t modified)
{
    item_t item;
    item.mode = S_IFREG | 0640;
    item.size = size;
    item.modified = modified;
    return item;
}

item_t folder()
{
    item_t item;
    item.mode = S_IFDIR | 0700;
    item.modified = noon_2024_01_15;
    return item;
}

TEST(LsLine, HasTheColumnsOfLs)
{
    EXPECT_EQ(ls_line(file(1024, noon_2024_01_15), "a.txt", anna, noon_2024_01_15 + day),
              "-rw-r-----   1 anna     users            1024 Jan 15 12:30 a.txt");
    EXPECT_EQ(ls_line(folder(), "docs", anna, noon_2024_01_15 + day),
              "drwx------   1 anna     users               0 Jan 15 12:30 docs");
}

TEST(LsLine, ShowsTheYearFromHalfAYearOnAndForTheFuture)
{
    const auto when = [](std::time_t modified) {
        return ls_line(file(0, modified), "x", anna, noon_2024_01_15).substr(46, 12);
    };
    EXPECT_EQ(when(noon_2024_01_15), "Jan 15 12:30");
    EXPECT_EQ(when(noon_2024_01_15 - 182 * day + 1), "Jul 17 12:30");
    EXPECT_EQ(when(noon_2024_01_15 - 182 * day), "Jul 17  2023");
    EXPECT_EQ(when(noon_2024_01_15 + 1), "Jan 15  2024");
    EXPECT_EQ(when(951782400), "Feb 29  2000");
    EXPECT_EQ(when(915148800), "Jan  1  1999");
    EXPECT_EQ(when(0), "Jan  1  1970");
}

TEST(LsLine, KeepsNamesWhole)
{
    EXPECT_TRUE(ls_line(file(0, 0), "  a -> b ", anna, 0).ends_with("Jan  1 00:00   a -> b "));
    const std::string name(4000, 'n');
    EXPECT_TRUE(ls_line(file(0, 0), name, anna, 0).ends_with(" " + name));
}

TEST(LsLine, ShowsForeignOwnersByNumberAndLinksByTheirTarget)
{
    item_t item = file(7, noon_2024_01_15);
    item.uid = 1001;
    item.gid = 1002;
    item.links = 3;
    item.link_target = "target";
    EXPECT_EQ(ls_line(item, "ln", anna, noon_2024_01_15),
              "lrw-r-----   3 1001     1002                7 Jan 15 12:30 ln -> target");
}

TEST(Facts, YearsThatFourDigitsCannotShowBecomeTheEpoch)
{
    EXPECT_EQ(time_value(-62135596801), "00001231235959");
    EXPECT_EQ(time_value(-62167219201), "19700101000000");
    EXPECT_EQ(time_value(253402300799), "99991231235959");
    EXPECT_EQ(time_value(253402300800), "19700101000000");
}

TEST(LsLine, ShowsSizesBeyondFourGiB)
{
    EXPECT_NE(ls_line(file(5'000'000'000'000, 0), "x", anna, 0).find(" 5000000000000 "),
              std::string::npos);
}

TEST(OwnerNames, AreOneWord)
{
    const owner_names_t names = make_owner_names("domain user", "");
    EXPECT_EQ(names.user, "domain_user");
    EXPECT_EQ(names.group, "user");
}

TEST(Facts, OfAFileAreExact)
{
    const std::string text = facts_text(file(1024, noon_2024_01_15), entry_kind_t::child,
                                        "/My files/a.txt", fact_set_t(), anna);
    EXPECT_TRUE(text.starts_with("type=file;size=1024;modify=20240115123000;perm=dfrw;unique="))
        << text;
    EXPECT_TRUE(text.ends_with(";UNIX.mode=0640;UNIX.owner=anna;UNIX.group=users;")) << text;
}

TEST(Facts, OfAFolderHaveNoSize)
{
    const std::string text =
        facts_text(folder(), entry_kind_t::child, "/My files/d", fact_set_t(), anna);
    EXPECT_TRUE(text.starts_with("type=dir;modify=20240115123000;perm=cdeflmp;unique=")) << text;
}

TEST(Facts, ATimeThatIsNotKnownIsLeftOut)
{
    const std::string text = facts_text(file(1, 0), entry_kind_t::child, "/a", fact_set_t(), anna);
    EXPECT_EQ(text.find("modify"), std::string::npos);
}

TEST(Facts, TellTheListedFolderAndItsParentApart)
{
    const auto type = fact_set_t::parse("type").value();
    EXPECT_EQ(facts_text(folder(), entry_kind_t::current_folder, "/d", type, anna), "type=cdir;");
    EXPECT_EQ(facts_text(folder(), entry_kind_t::parent_folder, "/", type, anna), "type=pdir;");
}

TEST(Facts, UniqueIsThatOfThePathAlone)
{
    const auto unique = fact_set_t::parse("UNIQUE;").value();
    const auto of = [&](const item_t &item, entry_kind_t kind, const char *path) {
        return facts_text(item, kind, path, unique, anna);
    };
    EXPECT_EQ(of(folder(), entry_kind_t::child, "/d"),
              of(file(3, 4), entry_kind_t::current_folder, "/d"));
    EXPECT_NE(of(folder(), entry_kind_t::child, "/d"), of(folder(), entry_kind_t::child, "/e"));
}

TEST(FactSet, IsReadWithoutCaseAndDropsUnknownNames)
{
    const auto facts = fact_set_t::parse("Type;SIZE;bogus;unix.MODE;").value();
    EXPECT_EQ(facts.list(), "type;size;UNIX.mode;");
    EXPECT_EQ(facts.feature_list(),
              "type*;size*;modify;perm;unique;UNIX.mode*;UNIX.owner;UNIX.group;");
    EXPECT_EQ(fact_set_t::parse("")->list(), "");
    EXPECT_EQ(facts_text(folder(), entry_kind_t::child, "/d", *fact_set_t::parse(""), anna), "");
}

TEST(FactSet, AMalformedListIsRefused)
{
    EXPECT_FALSE(fact_set_t::parse("type; size;"));
    EXPECT_FALSE(fact_set_t::parse(";"));
    EXPECT_FALSE(fact_set_t::parse("type;;size"));
}

TEST(Names, ThatNoClientCouldUseAreLeftOut)
{
    name_filter_t filter("/d");
    for (const char *name : {"", ".", "..", "a/b", "/", "a\rb", "a\nb"}) {
        EXPECT_FALSE(filter.shows(name)) << name;
    }
    EXPECT_TRUE(filter.shows(".hidden"));
    EXPECT_TRUE(filter.shows("a\x01 b"));
}

TEST(Names, ThatComeTwiceAreShownOnce)
{
    name_filter_t filter("/d");
    EXPECT_TRUE(filter.shows("a"));
    EXPECT_FALSE(filter.shows("a"));
    EXPECT_TRUE(filter.shows("A"));
}

TEST(Item, IsMadeFromARecordWithoutItsOddValues)
{
    tirval_gridftp_server_control_stat_t record{};
    record.mode = S_IFREG | 0700;
    record.nlink = 0;
    record.size = -5;
    const item_t item = item_from_record(record);
    EXPECT_EQ(item.links, 1);
    EXPECT_EQ(item.size, 0);
    EXPECT_FALSE(item.is_folder());
}

} // namespace
} // namespace tirval::server
