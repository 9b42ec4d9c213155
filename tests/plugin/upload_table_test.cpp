// The table of a session's upload records.
#include "library_seams.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

tirval_onedrive_upload_session_t *new_upload(const char *name, const char *url)
{
    auto *upload = static_cast<tirval_onedrive_upload_session_t *>(
        std::calloc(1, sizeof(tirval_onedrive_upload_session_t)));
    upload->name = strdup(name);
    upload->url = strdup(url);
    upload->exp = strdup("2026-01-01T00:00:00Z");
    upload->num_parts = 3;
    upload->part_size = 10485760;
    upload->total_size = 25000000;
    upload->part_array = json_array();
    return upload;
}

void free_upload(void *upload)
{
    tirval_onedrive_upload_session_free(static_cast<tirval_onedrive_upload_session_t *>(upload));
}

class UploadTable : public testing::Test {
  protected:
    UploadTable() { EXPECT_EQ(tirval_onedrive_upload_state_init(&table), TIRVAL_SUCCESS); }
    ~UploadTable() override { tirval_hashtable_destroy_all(&table, free_upload); }

    const char *url_of(const char *path)
    {
        const auto *upload = tirval_onedrive_upload_state_query(&table, path);
        return upload == nullptr ? "(none)" : upload->url;
    }

    test_session session;
    tirval_hashtable_t table = {};
};

TEST_F(UploadTable, StartsEmptyWithAThousandAndTwentyThreeBuckets)
{
    EXPECT_EQ(last_table_size, 1023);
    EXPECT_EQ(tirval_hashtable_size(&table), 0U);
}

TEST_F(UploadTable, AFailedInitialisationIsASystemError)
{
    tirval_hashtable_t other = {};
    table_init_fails = true;
    const tirval_result_t result = tirval_onedrive_upload_state_init(&other);
    table_init_fails = false;
    EXPECT_TRUE(is_malloc_error(result)) << message_of(result);
}

TEST_F(UploadTable, ARecordIsFoundUnderItsOwnNameWhateverThePathArgumentSays)
{
    EXPECT_EQ(tirval_onedrive_upload_state_update(&table, new_upload("/My files/a", "u"), "/other"),
              TIRVAL_SUCCESS);
    EXPECT_STREQ(url_of("/My files/a"), "u");
    EXPECT_STREQ(url_of("/other"), "(none)");
}

TEST_F(UploadTable, AQueryLeavesTheRecordInTheTable)
{
    tirval_onedrive_upload_state_update(&table, new_upload("/a", "u"), "/a");
    url_of("/a");
    EXPECT_STREQ(url_of("/a"), "u");
}

TEST_F(UploadTable, ASecondRecordOfOnePathIsRefusedAndTheFirstStays)
{
    tirval_onedrive_upload_state_update(&table, new_upload("/a", "first"), "/a");
    auto *second = new_upload("/a", "second");
    EXPECT_TRUE(is_malloc_error(tirval_onedrive_upload_state_update(&table, second, "/a")));
    EXPECT_STREQ(second->url, "second") << "the refused record stays the caller's";
    tirval_onedrive_upload_session_free(second);
    EXPECT_STREQ(url_of("/a"), "first");
}

TEST_F(UploadTable, RemovingFreesTheRecord)
{
    tirval_onedrive_upload_state_update(&table, new_upload("/a", "u"), "/a");
    EXPECT_EQ(tirval_onedrive_upload_state_remove(&table, "/a"), TIRVAL_SUCCESS);
    EXPECT_STREQ(url_of("/a"), "(none)");
}

TEST_F(UploadTable, ARecordCanBeRemovedByItsOwnName)
{
    auto *upload = new_upload("/a", "u");
    tirval_onedrive_upload_state_update(&table, upload, "/a");
    EXPECT_EQ(tirval_onedrive_upload_state_remove(&table, upload->name), TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_hashtable_size(&table), 0U);
}

TEST_F(UploadTable, RemovingAMissingPathSucceedsAndChangesNothing)
{
    tirval_onedrive_upload_state_update(&table, new_upload("/a", "u"), "/a");
    EXPECT_EQ(tirval_onedrive_upload_state_remove(&table, "/b"), TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_hashtable_size(&table), 1U);
}

TEST_F(UploadTable, FreeingDropsOneReferenceOfThePartArray)
{
    auto *upload = new_upload("/a", "u");
    const tirval_i_onedrive_json_t parts(json_incref(upload->part_array));
    tirval_onedrive_upload_session_free(upload);
    EXPECT_EQ(parts->refcount, 1U);
    tirval_onedrive_upload_session_free(nullptr);
}

TEST_F(UploadTable, ASessionsTableStartsWithTheVirtualFoldersAndIsFreedAsUploads)
{
    // The session's end frees these path records with the upload records' free function.
    tirval_hashtable_t *seeded = &session.handle()->upload_state;
    EXPECT_EQ(tirval_hashtable_size(seeded), 4U);
    for (const char *path : {"/", "/My files", "/Shared", "/Shared libraries"}) {
        const auto *found = tirval_onedrive_upload_state_query(seeded, path);
        ASSERT_NE(found, nullptr) << path;
        EXPECT_EQ(found->part_size, 0U);
        EXPECT_EQ(found->part_array, nullptr);
    }
    EXPECT_EQ(tirval_onedrive_upload_state_remove(seeded, "/Shared"), TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_hashtable_size(seeded), 3U);
}

TEST_F(UploadTable, AQueryWritesAPlainExitLine)
{
    debug_trace trace;
    url_of("/none");
    EXPECT_EQ(trace.count("tirval_onedrive_upload_state_query: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_upload_state_query: exit\n"), 1U);
}

} // namespace
