// What a record takes from each kind of Graph object.
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

class ObjectInfoParse : public testing::Test {
  protected:
    ~ObjectInfoParse() override { tirval_onedrive_path_info_free(&info); }

    tirval_result_t parse(const std::string &text)
    {
        const tirval_i_onedrive_json_t json(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
        EXPECT_NE(json, nullptr) << text;
        return tirval_onedrive_object_info_parse(json.get(), &info);
    }

    test_session session;
    tirval_onedrive_path_info_t info = {};
};

TEST_F(ObjectInfoParse, AFileInADriveFillsEveryField)
{
    EXPECT_EQ(parse(R"({"name":"a.txt","id":"I1","size":5368709120,
        "lastModifiedDateTime":"2021-03-04T05:06:07Z",
        "file":{"hashes":{"sha1Hash":"ABCDEF09","sha256Hash":"FEDCBA","quickXorHash":"aBcD="}},
        "parentReference":{"driveId":"D1","id":"P1"}})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FILE);
    EXPECT_TRUE(info.has_metadata);
    EXPECT_STREQ(info.name, "a.txt");
    EXPECT_STREQ(info.id, "I1");
    EXPECT_EQ(info.size, 5368709120U);
    EXPECT_EQ(info.modtime, 1614834367);
    EXPECT_STREQ(info.parent_id, "D1");
    EXPECT_FALSE(info.listed);
    EXPECT_EQ(info.md5, nullptr);
}

TEST_F(ObjectInfoParse, HexHashesAreLowerCasedAndTheQuickXorHashKeptExactly)
{
    parse(R"({"name":"a","id":"1","file":{"hashes":{"sha1Hash":"ABCDEF09","sha256Hash":"FEDCBA",
              "quickXorHash":"aBcDEF+/="}}})");
    EXPECT_STREQ(info.sha1, "abcdef09");
    EXPECT_STREQ(info.sha256, "fedcba");
    EXPECT_STREQ(info.qxr, "aBcDEF+/=");
}

TEST_F(ObjectInfoParse, EachHashIsOptional)
{
    parse(R"({"name":"a","id":"1","file":{"hashes":{"quickXorHash":"q"}}})");
    EXPECT_EQ(info.sha1, nullptr);
    EXPECT_EQ(info.sha256, nullptr);
    EXPECT_STREQ(info.qxr, "q");
}

TEST_F(ObjectInfoParse, OneHashThatIsNoTextLeavesAllOut)
{
    EXPECT_EQ(parse(R"({"name":"a","id":"1","file":{"hashes":{"sha1Hash":"AB","sha256Hash":7}}})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.sha1, nullptr);
    EXPECT_EQ(info.sha256, nullptr);
}

TEST_F(ObjectInfoParse, AFileWithoutHashesHasNone)
{
    EXPECT_EQ(parse(R"({"name":"a","id":"1","file":{"mimeType":"text/plain"}})"), TIRVAL_SUCCESS);
    EXPECT_TRUE(info.has_metadata);
    EXPECT_EQ(info.sha1, nullptr);
    EXPECT_EQ(info.sha256, nullptr);
    EXPECT_EQ(info.qxr, nullptr);
}

TEST_F(ObjectInfoParse, AFolderIsAFolder)
{
    EXPECT_EQ(parse(R"({"name":"d","id":"2","folder":{"childCount":3},"size":12,
                        "lastModifiedDateTime":"1970-01-01T00:00:01Z",
                        "parentReference":{"driveId":"D"}})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_FALSE(info.has_metadata);
    EXPECT_EQ(info.size, 12U);
    EXPECT_EQ(info.modtime, 1);
    EXPECT_STREQ(info.parent_id, "D");
}

TEST_F(ObjectInfoParse, FolderComesBeforeFile)
{
    parse(R"({"name":"d","id":"2","folder":{},"file":{"hashes":{"sha1Hash":"A"}}})");
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_EQ(info.sha1, nullptr);
}

TEST_F(ObjectInfoParse, AMemberThatIsNullIsStillThere)
{
    parse(R"({"name":"d","id":"2","folder":null})");
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
}

TEST_F(ObjectInfoParse, FractionsAndZoneOfATimeAreIgnored)
{
    EXPECT_EQ(parse(R"({"lastModifiedDateTime":"2021-03-04T05:06:07.123Z"})"), TIRVAL_SUCCESS);
    EXPECT_EQ(info.modtime, 1614834367);
}

TEST_F(ObjectInfoParse, TheFileSystemsTimeComesFirst)
{
    parse(R"({"lastModifiedDateTime":"1970-01-01T00:00:01Z",
              "fileSystemInfo":{"lastModifiedDateTime":"1970-01-01T00:00:02Z"}})");
    EXPECT_EQ(info.modtime, 2);
}

TEST_F(ObjectInfoParse, FileSystemInfoWithoutATimeFallsBackToTheItems)
{
    parse(R"({"lastModifiedDateTime":"1970-01-01T00:00:01Z",
              "fileSystemInfo":{"createdDateTime":"1970-01-01T00:00:02Z"}})");
    EXPECT_EQ(info.modtime, 1);
}

TEST_F(ObjectInfoParse, AFileSystemTimeThatIsNoTextIsNotReplacedByTheItems)
{
    EXPECT_EQ(parse(R"({"lastModifiedDateTime":"1970-01-01T00:00:01Z",
                        "fileSystemInfo":{"lastModifiedDateTime":null}})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.modtime, 0);
}

TEST_F(ObjectInfoParse, AMissingTimeLeavesTheRecords)
{
    info.modtime = 42;
    EXPECT_EQ(parse(R"({"name":"a","id":"1"})"), TIRVAL_SUCCESS);
    EXPECT_EQ(info.modtime, 42);
}

TEST_F(ObjectInfoParse, AnUnreadableTimeIsReportedAfterAllElseWasRead)
{
    const tirval_result_t result =
        parse(R"({"name":"a","id":"1","file":{},"lastModifiedDateTime":"2021-03-04 05:06",
                  "parentReference":{"driveId":"D"}})");
    EXPECT_TRUE(is_generic_error(result, "Error parsing 'lastModifiedDateTime' field!"))
        << message_of(result);
    EXPECT_STREQ(info.parent_id, "D");
    EXPECT_EQ(info.modtime, 1614816000) << "what was read of it is taken";
}

TEST_F(ObjectInfoParse, ATimeWithoutItsSecondsIsUnreadable)
{
    EXPECT_TRUE(is_generic_error(parse(R"({"lastModifiedDateTime":"2021-03-04T05:06"})"),
                                 "Error parsing 'lastModifiedDateTime' field!"));
    EXPECT_EQ(info.modtime, 1614834360);
}

TEST_F(ObjectInfoParse, AnObjectOfNoKnownKindIsUnknownAndKeepsItsFields)
{
    EXPECT_EQ(parse(R"({"name":"notebook","id":"3","size":9,"package":{},
                        "lastModifiedDateTime":"1970-01-01T00:00:05Z"})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_UNKNOWN);
    EXPECT_STREQ(info.name, "notebook");
    EXPECT_STREQ(info.id, "3");
    EXPECT_EQ(info.size, 9U);
    EXPECT_EQ(info.modtime, 5);
}

TEST_F(ObjectInfoParse, WithoutAParentReferenceTheParentIsZero)
{
    parse(R"({"name":"a","id":"1"})");
    EXPECT_STREQ(info.parent_id, "0");
}

TEST_F(ObjectInfoParse, AParentReferenceWithOnlyAnIdGivesThatId)
{
    parse(R"({"name":"a","id":"1","parentReference":{"id":"P"}})");
    EXPECT_STREQ(info.parent_id, "P");
}

TEST_F(ObjectInfoParse, AParentReferenceWithNeitherIdLeavesTheParentAbsent)
{
    EXPECT_EQ(parse(R"({"name":"a","id":"1","parentReference":{"path":"/x"}})"), TIRVAL_SUCCESS);
    EXPECT_EQ(info.parent_id, nullptr);
    parse(R"({"name":"a","id":"1","parentReference":{"driveId":null,"id":7}})");
    EXPECT_EQ(info.parent_id, nullptr);
}

TEST_F(ObjectInfoParse, MissingNameIdAndSizeAreNoErrors)
{
    EXPECT_EQ(parse(R"({"file":{}})"), TIRVAL_SUCCESS);
    EXPECT_EQ(info.name, nullptr);
    EXPECT_EQ(info.id, nullptr);
    EXPECT_EQ(info.size, 0U);
}

TEST_F(ObjectInfoParse, ASizeThatIsNoIntegerIsNotTaken)
{
    EXPECT_EQ(parse(R"({"name":"a","id":"1","size":"12"})"), TIRVAL_SUCCESS);
    EXPECT_EQ(info.size, 0U);
}

TEST_F(ObjectInfoParse, ADriveIsAFolderWithoutAParent)
{
    EXPECT_EQ(parse(R"({"name":"Documents","id":"b!1","driveType":"documentLibrary",
                        "lastModifiedDateTime":"1970-01-01T00:00:03Z"})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_STREQ(info.id, "b!1");
    EXPECT_STREQ(info.parent_id, "0");
    EXPECT_EQ(info.modtime, 3);
}

TEST_F(ObjectInfoParse, AFollowedSiteIsNamedByItsDisplayName)
{
    EXPECT_EQ(parse(R"({"displayName":"Team","sharepointIds":{"siteId":"S1"},"id":"other"})"),
              TIRVAL_SUCCESS);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_STREQ(info.name, "Team");
    EXPECT_STREQ(info.id, "S1");
    EXPECT_STREQ(info.parent_id, "Shared libraries");
}

TEST_F(ObjectInfoParse, ASitesNameComesBeforeItsDisplayName)
{
    parse(R"({"displayName":"Team","name":"team","sharepointIds":{"siteId":"S1"}})");
    EXPECT_STREQ(info.name, "team");
}

TEST_F(ObjectInfoParse, ASitesSizeTimeAndParentAreNotRead)
{
    parse(R"({"displayName":"Team","sharepointIds":{"siteId":"S1"},"size":5,
              "lastModifiedDateTime":"nonsense","parentReference":{"driveId":"D"}})");
    EXPECT_EQ(info.size, 0U);
    EXPECT_EQ(info.modtime, 0);
    EXPECT_STREQ(info.parent_id, "Shared libraries");
}

TEST_F(ObjectInfoParse, ASiteWithoutASiteIdFails)
{
    const tirval_result_t result = parse(R"({"displayName":"Team","sharepointIds":{}})");
    EXPECT_TRUE(is_generic_error(result, "No 'siteId' field found!")) << message_of(result);
    EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_FOLDER);
}

TEST_F(ObjectInfoParse, ASiteWithoutANameFailsAfterItsIdsWereSet)
{
    const tirval_result_t result = parse(R"({"name":7,"sharepointIds":{"siteId":"S1"}})");
    EXPECT_TRUE(is_generic_error(result, "No 'name' field found!")) << message_of(result);
    EXPECT_STREQ(info.id, "S1");
    EXPECT_STREQ(info.parent_id, "Shared libraries");
}

TEST_F(ObjectInfoParse, EveryFailureNamesTheParserAsItsPlace)
{
    for (const char *text : {R"({"sharepointIds":{}})", R"({"sharepointIds":{"siteId":"S"}})",
                             R"({"name":"a","id":"1","lastModifiedDateTime":"yesterday"})"}) {
        const error_place place = place_of(parse(text));
        EXPECT_EQ(place.source, "object_info_parse") << text;
        EXPECT_EQ(place.function, "tirval_onedrive_object_info_parse") << text;
        EXPECT_GT(place.line, 0) << text;
    }
}

TEST_F(ObjectInfoParse, AnythingThatIsNoObjectIsUnknownAndNameless)
{
    for (const char *text : {"[]", "\"text\"", "17", "null"}) {
        EXPECT_EQ(parse(text), TIRVAL_SUCCESS) << text;
        EXPECT_EQ(info.type, TIRVAL_ONEDRIVE_UNKNOWN);
        EXPECT_EQ(info.name, nullptr);
    }
    EXPECT_EQ(tirval_onedrive_object_info_parse(nullptr, &info), TIRVAL_SUCCESS);
    EXPECT_EQ(info.name, nullptr);
}

TEST_F(ObjectInfoParse, AFailureWritesItsChainToTheDebugChannel)
{
    debug_trace trace;
    parse(R"({"sharepointIds":{"siteId":"S1"}})");
    EXPECT_THAT(trace.text(), testing::HasSubstr("tirval_onedrive_object_info_parse: enter\n"));
    EXPECT_THAT(trace.text(),
                testing::HasSubstr("tirval_onedrive_object_info_parse: exit: result=0x"));
    EXPECT_THAT(trace.text(), testing::HasSubstr("No 'name' field found!"));
}

} // namespace
