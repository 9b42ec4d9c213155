// Item records, the four virtual folders, the cache of paths, and what the host sees of a record.
#include "library_seams.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using record_ptr =
    std::unique_ptr<tirval_onedrive_path_info_t, decltype(&tirval_onedrive_path_info_free)>;

record_ptr copy_of(const tirval_onedrive_path_info_t *info)
{
    return {tirval_onedrive_path_info_copy(info), &tirval_onedrive_path_info_free};
}

/* A record of literals, never freed. */
tirval_onedrive_path_info_t item(const char *name, const char *id)
{
    tirval_onedrive_path_info_t info = {};
    info.name = const_cast<char *>(name);
    info.id = const_cast<char *>(id);
    info.type = TIRVAL_ONEDRIVE_FILE;
    return info;
}

struct stat_record : tirval_gridftp_server_control_stat_t {
    stat_record(const tirval_onedrive_path_info_t &info) : tirval_gridftp_server_control_stat_t()
    {
        EXPECT_EQ(tirval_onedrive_info_to_stat(nullptr, &info, this), TIRVAL_SUCCESS);
    }
    ~stat_record() { std::free(name); }
    stat_record(const stat_record &) = delete;
    stat_record &operator=(const stat_record &) = delete;
};

TEST(PathRecord, ACopyHasEveryFieldAndTextsOfItsOwn)
{
    tirval_onedrive_path_info_t info = item("n", "i");
    info.parent_id = const_cast<char *>("p");
    info.type = TIRVAL_ONEDRIVE_FOLDER;
    info.size = 1ULL << 40;
    info.modtime = 1614834367;
    info.md5 = const_cast<char *>("m");
    info.sha1 = const_cast<char *>("s1");
    info.sha256 = const_cast<char *>("s2");
    info.qxr = const_cast<char *>("q");
    info.listed = true;
    info.has_metadata = true;
    const record_ptr copy = copy_of(&info);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->name, info.name);
    EXPECT_STREQ(copy->name, "n");
    EXPECT_STREQ(copy->id, "i");
    EXPECT_STREQ(copy->parent_id, "p");
    EXPECT_EQ(copy->type, TIRVAL_ONEDRIVE_FOLDER);
    EXPECT_EQ(copy->size, 1ULL << 40);
    EXPECT_EQ(copy->modtime, 1614834367);
    EXPECT_STREQ(copy->md5, "m");
    EXPECT_STREQ(copy->sha1, "s1");
    EXPECT_STREQ(copy->sha256, "s2");
    EXPECT_STREQ(copy->qxr, "q");
    EXPECT_TRUE(copy->listed);
    EXPECT_TRUE(copy->has_metadata);
    EXPECT_TRUE(copy->freeme);
}

TEST(PathRecord, AbsentTextsStayAbsentInACopy)
{
    const tirval_onedrive_path_info_t info = item("n", "i");
    const record_ptr copy = copy_of(&info);
    EXPECT_EQ(copy->parent_id, nullptr);
    EXPECT_EQ(copy->md5, nullptr);
    EXPECT_EQ(copy->sha1, nullptr);
    EXPECT_EQ(copy->sha256, nullptr);
    EXPECT_EQ(copy->qxr, nullptr);
}

TEST(PathRecord, ACopyOfNothingIsNothing)
{
    EXPECT_EQ(copy_of(nullptr), nullptr);
}

TEST(PathRecord, FreeingLeavesARecordThatIsNotFromTheHeap)
{
    tirval_onedrive_path_info_t info = {};
    info.name = strdup("n");
    info.id = strdup("i");
    info.qxr = strdup("q");
    info.size = 7;
    tirval_onedrive_path_info_free(&info);
    EXPECT_EQ(info.size, 7U);
    tirval_onedrive_path_info_free(nullptr);
}

TEST(RecordLayout, FieldsStandInTheirOrder)
{
    using item = tirval_onedrive_path_info_t;
    constexpr std::array item_fields = {
        offsetof(item, name),   offsetof(item, id),     offsetof(item, parent_id),
        offsetof(item, type),   offsetof(item, size),   offsetof(item, modtime),
        offsetof(item, md5),    offsetof(item, sha1),   offsetof(item, sha256),
        offsetof(item, qxr),    offsetof(item, listed), offsetof(item, has_metadata),
        offsetof(item, freeme),
    };
    EXPECT_TRUE(std::ranges::is_sorted(item_fields));

    using upload = tirval_onedrive_upload_session_t;
    constexpr std::array upload_fields = {
        offsetof(upload, url),        offsetof(upload, exp),       offsetof(upload, name),
        offsetof(upload, num_parts),  offsetof(upload, part_size), offsetof(upload, total_size),
        offsetof(upload, part_array),
    };
    EXPECT_TRUE(std::ranges::is_sorted(upload_fields));

    using session = tirval_onedrive_handle_t;
    constexpr std::array session_fields = {
        offsetof(session, username),
        offsetof(session, userid),
        offsetof(session, tid),
        offsetof(session, personal),
        offsetof(session, max_upload),
        offsetof(session, access_token),
        offsetof(session, access_token_exp),
        offsetof(session, cache),
        offsetof(session, upload_state),
        offsetof(session, retry_state),
    };
    EXPECT_TRUE(std::ranges::is_sorted(session_fields));

    using retry = tirval_onedrive_retry_t;
    constexpr std::array retry_fields = {offsetof(retry, is), offsetof(retry, fd),
                                         offsetof(retry, delay), offsetof(retry, shared)};
    EXPECT_TRUE(std::ranges::is_sorted(retry_fields));

    using state = tirval_onedrive_upload_state_t;
    constexpr std::array state_fields = {offsetof(state, is), offsetof(state, fd),
                                         offsetof(state, shared)};
    EXPECT_TRUE(std::ranges::is_sorted(state_fields));

    using listing = tirval_onedrive_stat_state_t;
    constexpr std::array listing_fields = {offsetof(listing, op), offsetof(listing, stat_info),
                                           offsetof(listing, stat_array),
                                           offsetof(listing, stat_count)};
    EXPECT_TRUE(std::ranges::is_sorted(listing_fields));
}

TEST(VirtualFolders, TheirRecordsAreConstant)
{
    struct expectation {
        const tirval_onedrive_path_info_t &record;
        std::string name;
        const char *parent_id;
        bool listed;
    };
    const expectation expected[] = {
        {tirval_i_onedrive_vfs_root_info, "/", nullptr, true},
        {tirval_i_onedrive_vfs_myfiles_info, "My files", "/", false},
        {tirval_i_onedrive_vfs_shared_info, "Shared", "/", false},
        {tirval_i_onedrive_vfs_libs_info, "Shared libraries", "/", false},
    };
    for (const auto &[record, name, parent_id, listed] : expected) {
        EXPECT_EQ(record.name, name);
        EXPECT_EQ(record.id, name);
        EXPECT_STREQ(record.parent_id, parent_id);
        EXPECT_EQ(record.type, TIRVAL_ONEDRIVE_FOLDER);
        EXPECT_EQ(record.size, 0U);
        EXPECT_EQ(record.modtime, 0);
        EXPECT_EQ(record.listed, listed);
        EXPECT_FALSE(record.freeme);
        EXPECT_EQ(record.sha1, nullptr);
        EXPECT_EQ(record.qxr, nullptr);
    }
}

class PathCache : public testing::Test {
  protected:
    tirval_result_t update(const tirval_onedrive_path_info_t &info, const char *base)
    {
        return tirval_onedrive_path_cache_update(cache, &info, base);
    }
    const tirval_onedrive_path_info_t *query(const char *path)
    {
        return tirval_onedrive_path_cache_query(cache, path);
    }

    test_session session;
    tirval_hashtable_t *cache = &session.handle()->cache;
};

TEST_F(PathCache, StartsWithTheFourVirtualFolders)
{
    EXPECT_EQ(tirval_hashtable_size(cache), 4U);
    for (const char *path : {"/", "/My files", "/Shared", "/Shared libraries"}) {
        ASSERT_NE(query(path), nullptr) << path;
        EXPECT_STREQ(query(path)->name, path) << "a cached record bears its key";
        EXPECT_TRUE(query(path)->freeme);
    }
    EXPECT_STREQ(query("/My files")->id, "My files");
    EXPECT_TRUE(query("/")->listed);
    EXPECT_FALSE(query("/Shared")->listed);
}

TEST_F(PathCache, HasAThousandAndTwentyThreeBuckets)
{
    tirval_hashtable_t other = {};
    last_table_size = 0;
    ASSERT_EQ(tirval_onedrive_path_cache_init(&other), TIRVAL_SUCCESS);
    EXPECT_EQ(last_table_size, 1023);
    tirval_hashtable_destroy_all(&other, [](void *record) {
        tirval_onedrive_path_info_free(static_cast<tirval_onedrive_path_info_t *>(record));
    });
}

TEST_F(PathCache, TheKeyIsBaseSlashName)
{
    EXPECT_EQ(update(item("a", "1"), "/My files"), TIRVAL_SUCCESS);
    ASSERT_NE(query("/My files/a"), nullptr);
    EXPECT_STREQ(query("/My files/a")->name, "/My files/a");
    EXPECT_STREQ(query("/My files/a")->id, "1");
}

TEST_F(PathCache, ABaseOfOneCharacterTakesNoSeparator)
{
    EXPECT_EQ(update(item("a", "1"), "/"), TIRVAL_SUCCESS);
    EXPECT_NE(query("/a"), nullptr);
    EXPECT_EQ(update(item("a", "2"), "x"), TIRVAL_SUCCESS);
    EXPECT_NE(query("xa"), nullptr);
}

TEST_F(PathCache, WithoutABaseTheNameIsTheKey)
{
    EXPECT_EQ(update(item("plain", "1"), nullptr), TIRVAL_SUCCESS);
    EXPECT_NE(query("plain"), nullptr);
    EXPECT_EQ(update(item("other", "1"), ""), TIRVAL_SUCCESS);
    EXPECT_NE(query("other"), nullptr);
}

TEST_F(PathCache, TheCallersRecordIsNotKept)
{
    char name[] = "a";
    const tirval_onedrive_path_info_t info = item(name, "1");
    update(info, "/My files");
    name[0] = 'z';
    EXPECT_STREQ(query("/My files/a")->name, "/My files/a");
    EXPECT_STREQ(info.name, "z") << "the caller's own name is left as it was";
}

TEST_F(PathCache, AnUpdateOfAPresentKeyReplacesAndFreesTheOldRecord)
{
    update(item("a", "old"), "/My files");
    session.mark_listed("/My files/a");
    EXPECT_EQ(update(item("a", "new"), "/My files"), TIRVAL_SUCCESS);
    EXPECT_STREQ(query("/My files/a")->id, "new");
    EXPECT_FALSE(query("/My files/a")->listed) << "the new record's flag counts";
    EXPECT_EQ(tirval_hashtable_size(cache), 5U);
}

TEST_F(PathCache, AMissingPathIsNull)
{
    EXPECT_EQ(query("/My files/none"), nullptr);
}

TEST_F(PathCache, RemovingFreesTheEntry)
{
    update(item("a", "1"), "/My files");
    EXPECT_EQ(tirval_onedrive_path_cache_remove(cache, "/My files/a"), TIRVAL_SUCCESS);
    EXPECT_EQ(query("/My files/a"), nullptr);
}

TEST_F(PathCache, RemovingAMissingKeyIsNoError)
{
    EXPECT_EQ(tirval_onedrive_path_cache_remove(cache, "/none"), TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_hashtable_size(cache), 4U);
}

TEST_F(PathCache, ARecordCanBeRemovedByItsOwnName)
{
    update(item("a", "1"), "/My files");
    EXPECT_EQ(tirval_onedrive_path_cache_remove(cache, query("/My files/a")->name), TIRVAL_SUCCESS);
    EXPECT_EQ(query("/My files/a"), nullptr);
}

TEST_F(PathCache, ARecordWithoutANameOrAnIdIsRefused)
{
    for (const auto &[name, id] :
         {std::pair<const char *, const char *>{nullptr, "1"}, {"a", nullptr}, {"", "1"}}) {
        const tirval_result_t result = update(item(name, id), "/My files");
        EXPECT_TRUE(is_generic_error(result, "without a name or an id"));
    }
    EXPECT_EQ(tirval_hashtable_size(cache), 4U);
}

TEST_F(PathCache, AFailedInitialisationIsASystemErrorAndTheFoldersAreTriedAllTheSame)
{
    tirval_hashtable_t table = {};
    debug_trace trace;
    table_init_fails = true;
    const tirval_result_t result = tirval_onedrive_path_cache_init(&table);
    table_init_fails = false;
    EXPECT_TRUE(is_malloc_error(result)) << message_of(result);
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_update: enter\n"), 4U);
}

TEST_F(PathCache, AnInsertionThatFailsTwiceIsASystemErrorAndTheOldRecordIsGone)
{
    update(item("a", "old"), "/My files");
    table_insert_fails = true;
    const tirval_result_t result = update(item("a", "new"), "/My files");
    table_insert_fails = false;
    EXPECT_TRUE(is_malloc_error(result)) << message_of(result);
    EXPECT_EQ(query("/My files/a"), nullptr);
}

TEST_F(PathCache, AKeyThatCannotBeFormedIsASystemError)
{
    const tirval_onedrive_path_info_t info = item("a", "1");
    failing_text = 1;
    EXPECT_TRUE(is_malloc_error(update(info, "/My files")));
    EXPECT_EQ(query("/My files/a"), nullptr);
}

TEST_F(PathCache, QueryAndCopyWritePlainExitLinesAndTheOthersTheirResult)
{
    debug_trace trace;
    update(item("a", "1"), "/My files");
    query("/My files/a");
    tirval_onedrive_path_cache_remove(cache, "/My files/a");
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_update: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_update: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_query: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_query: exit\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_info_copy: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_info_copy: exit\n"), 1U);
    EXPECT_EQ(trace.count("tirval_onedrive_path_cache_remove: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(trace.count("path_info_free"), 0U);
}

TEST_F(PathCache, TheConversionWritesNoLine)
{
    const tirval_onedrive_path_info_t info = item("a", "1");
    debug_trace trace;
    const stat_record record(info);
    EXPECT_EQ(trace.text(), "");
}

TEST(InfoToStat, AFolderIsADirectoryAndAllElseARegularFile)
{
    tirval_onedrive_path_info_t info = item("a", "1");
    info.type = TIRVAL_ONEDRIVE_FOLDER;
    EXPECT_EQ(stat_record(info).mode, 040700U);
    info.type = TIRVAL_ONEDRIVE_FILE;
    EXPECT_EQ(stat_record(info).mode, 0100700U);
    info.type = TIRVAL_ONEDRIVE_UNKNOWN;
    EXPECT_EQ(stat_record(info).mode, 0100700U);
}

TEST(InfoToStat, SizeTimesAndNameAreTheRecords)
{
    tirval_onedrive_path_info_t info = item("/My files/a", "1");
    info.size = 5368709120;
    info.modtime = 1614834367;
    const stat_record record(info);
    EXPECT_STREQ(record.name, "/My files/a");
    EXPECT_NE(record.name, info.name) << "the caller frees a copy";
    EXPECT_EQ(record.size, 5368709120);
    EXPECT_EQ(record.mtime, 1614834367);
    EXPECT_EQ(record.atime, 1614834367);
    EXPECT_EQ(record.ctime, 1614834367);
    EXPECT_EQ(record.nlink, 1);
    EXPECT_EQ(record.uid, 0U);
    EXPECT_EQ(record.gid, 0U);
    EXPECT_EQ(record.symlink_target, nullptr);
    EXPECT_EQ(record.link_mode, 0);
    EXPECT_EQ(record.error, 0);
}

TEST(InfoToStat, TheInodeIsTheHashOfTheName)
{
    EXPECT_EQ(stat_record(item("a", "1")).ino, 177670U) << "5381 * 33 + 97";
}

TEST(InfoToStat, BytesAbove127CountNegative)
{
    EXPECT_EQ(stat_record(item("\xff", "1")).ino, 5381U * 33 - 1);
}

TEST(InfoToStat, OnlyTheLow32BitsOfAHashCount)
{
    uint64_t hash = 5381;
    for (int i = 0; i < 40; ++i) {
        hash = hash * 33 + 'z';
    }
    ASSERT_GT(hash, 0xffffffffU);
    EXPECT_EQ(stat_record(item(std::string(40, 'z').c_str(), "1")).ino, hash & 0xffffffffU);
}

TEST(InfoToStat, TheDeviceIsTheHashOfTheParentsId)
{
    tirval_onedrive_path_info_t info = item("a", "1");
    info.parent_id = const_cast<char *>("a");
    EXPECT_EQ(stat_record(info).dev, 177670U);
}

TEST(InfoToStat, WithoutAParentTheDeviceIsTheHashOfFiveZeros)
{
    uint32_t hash = 5381;
    for (int i = 0; i < 5; ++i) {
        hash = hash * 33 + '0';
    }
    EXPECT_EQ(stat_record(item("a", "1")).dev, hash);
}

} // namespace
