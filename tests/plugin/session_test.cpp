/* A session's start and end, driven through the interface table. */
#include "faked_user.h"
#include "frame_support.h"

#include "http_peer.h"
#include "memory_backend.h"

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

/* Where the copy of this name was put by the session's start. */
constexpr const char *user_name = "alice-of-the-session";
char *copied_user_name = nullptr;

} // namespace

extern "C" TIRVAL_API char *strdup(const char *text) noexcept
{
    static auto *const next = next_definition<char *(const char *)>("strdup");
    char *const copy = next(text);
    if (strcmp(text, user_name) == 0) {
        copied_user_name = copy;
    }
    return copy;
}

namespace {

constexpr const char *good_credential = R"({"access_token": "T", "sub": "S", "tid": "X",
    "token_expiry": "2100-01-01T00:00:00.000000+00:00"})";

/* The activated plug-in, a host with a credential, and a home folder that is empty. */
class Session : public ::testing::Test {
  protected:
    void SetUp() override
    {
        user = {};
        user.home = home.path();
        ASSERT_EQ(tirval_module_activate(&tirval_gridftp_server_onedrive_module), 0);
        host.iface = static_cast<const tirval_gfs_storage_iface_t *>(
            tirval_extension_lookup(&hold, &tirval_i_gfs_dsi_registry, "onedrive"));
        ASSERT_NE(host.iface, nullptr);
        host.config["creds"] = good_credential;
        tirval_i_onedrive_api_per_second = 15;
    }
    void TearDown() override
    {
        end();
        tirval_i_onedrive_api_per_second = 15;
        tirval_extension_release(&hold);
        (void)tirval_module_deactivate(&tirval_gridftp_server_onedrive_module);
    }

    bool start() { return host.start(user_name); }
    /* The tenant's text is left behind; the test gives it back. */
    void end()
    {
        const tirval_i_onedrive_text_t tid(host.session != nullptr ? handle()->tid : nullptr);
        host.end();
    }
    [[nodiscard]] tirval_onedrive_handle_t *handle() const
    {
        return static_cast<tirval_onedrive_handle_t *>(host.session);
    }

    const temporary_folder home;
    const std::string state_folder = home / ".tirval";
    tirval_extension_handle_t hold = {};
    memory_backend host;
};

/* ---- Starting ---- */

TEST_F(Session, StartsWithAHandleAHomeAndTheChecksumsOnOffer)
{
    ASSERT_TRUE(start()) << host.answer.text;
    EXPECT_NE(host.session, nullptr);
    EXPECT_EQ(host.home_dir, "/My files");
    EXPECT_EQ(host.username, std::nullopt);
    EXPECT_EQ(host.checksum_support,
              "QuickXORHex:1;SHA1:15;SHA256:15;SHA512:15;MD5:15;Dropbox:15;ADLER32:15;");
}

TEST_F(Session, FillsItsHandle)
{
    ASSERT_TRUE(start());
    EXPECT_STREQ(handle()->username, user_name);
    EXPECT_EQ(handle()->username, copied_user_name);
    EXPECT_STREQ(handle()->userid, "S");
    EXPECT_STREQ(handle()->tid, "X");
    EXPECT_FALSE(handle()->personal);
    EXPECT_EQ(handle()->max_upload, 268435456000U);
    EXPECT_STREQ(handle()->access_token, "T");
    EXPECT_EQ(handle()->access_token_exp, 4102444800);
    EXPECT_TRUE(handle()->retry_state.is);
    EXPECT_EQ(handle()->retry_state.delay, 66666U);
}

TEST_F(Session, AsksForCredentialAndPolicyAndAnnouncesItsChecksumsBeforeItAnswers)
{
    static std::vector<std::string> calls;
    static void *session;
    calls.clear();
    tirval_gfs_backend_t backend = {};
    backend.config_data = [](void * /*host*/, const char *key) -> char * {
        static std::string credential = good_credential;
        calls.emplace_back(key);
        return calls.back() == "creds" ? credential.data() : nullptr;
    };
    backend.checksum_support = [](void * /*host*/, const char * /*support*/) {
        calls.emplace_back("checksums");
    };
    backend.session_started = [](void * /*host*/, tirval_result_t, void *started, const char *,
                                 const char *) {
        calls.emplace_back("answer");
        session = started;
    };
    tirval_gfs_session_info_t info = {.username = user_name, .client_address = nullptr};
    tirval_gfs_run_session_start(host.iface, &info, &backend, nullptr);
    EXPECT_THAT(calls, ElementsAre("creds", "config", "checksums", "answer"));
    host.session = session;
}

TEST_F(Session, MakesAMissingStateFolder)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of(state_folder), 0700U);
    EXPECT_EQ(mode_of(state_folder + "/onedrive-r"), 0700U);
    EXPECT_EQ(size_of(state_folder + "/onedrive-r/S"), 24);
    EXPECT_FALSE(std::filesystem::exists(state_folder + "/onedrive-u"));
}

TEST_F(Session, LeavesAnExistingStateFolderAsItIs)
{
    std::filesystem::create_directory(state_folder);
    ASSERT_EQ(chmod(state_folder.c_str(), 0751), 0);
    std::ofstream(state_folder + "/mine") << "x";
    ASSERT_TRUE(start());
    EXPECT_EQ(mode_of(state_folder), 0751U);
    EXPECT_EQ(size_of(state_folder + "/mine"), 1);
}

TEST_F(Session, StartsAlsoWithoutAStateFolder)
{
    user.home = home / "missing/home";
    ASSERT_TRUE(start());
    EXPECT_EQ(handle()->retry_state.fd, -1);
}

TEST_F(Session, StartsAlsoWhenSomethingElseHasTheStateFoldersName)
{
    std::ofstream(state_folder.c_str()) << "x";
    ASSERT_TRUE(start());
    EXPECT_EQ(size_of(state_folder), 1);
    EXPECT_EQ(handle()->retry_state.fd, -1);
}

TEST_F(Session, StartsAlsoWhenTheUserCannotBeLookedUp)
{
    user.failure = EIO;
    ASSERT_TRUE(start());
    EXPECT_EQ(handle()->retry_state.fd, -1);
    EXPECT_FALSE(std::filesystem::exists(state_folder));
}

/* ---- Starting without a token ---- */

TEST_F(Session, WithoutACredentialDoesNotStart)
{
    host.config.clear();
    EXPECT_FALSE(start());
    const tirval_i_onedrive_text_t left(copied_user_name);
    EXPECT_THAT(host.answer.text, StartsWith("Error loading user credential: "));
    EXPECT_EQ(host.session, nullptr);
    EXPECT_EQ(host.home_dir, std::nullopt);
    EXPECT_EQ(host.username, std::nullopt);
    EXPECT_EQ(host.checksum_support, "");
    EXPECT_THAT(host.config_asked, ElementsAre("creds"));
    EXPECT_STREQ(left.get(), user_name) << "the name is left";
    EXPECT_EQ(mode_of(state_folder), 0700U) << "made before the token was asked for";
}

TEST_F(Session, PassesOnWhatIsWrongWithTheCredential)
{
    host.config["creds"] = R"({"sub": "S"})";
    EXPECT_FALSE(start());
    const tirval_i_onedrive_text_t left(copied_user_name);
    EXPECT_EQ(host.answer.code, 500);
    EXPECT_EQ(host.answer.tag, "INTERNAL_ERROR");
    EXPECT_THAT(host.answer.message,
                StartsWith("GridFTP-Error: Error unpacking collection storage policy: "));
}

TEST_F(Session, AFailedStartDoesNotTouchTheRate)
{
    host.config = {{"config", R"({"user_api_rate_limit": 7})"}};
    EXPECT_FALSE(start());
    const tirval_i_onedrive_text_t left(copied_user_name);
    EXPECT_EQ(tirval_i_onedrive_api_per_second, 15);
}

/* ---- The storage policy ---- */

TEST_F(Session, TakesItsRateFromThePolicy)
{
    host.config["config"] = R"({"user_api_rate_limit": 7})";
    ASSERT_TRUE(start());
    EXPECT_EQ(tirval_i_onedrive_api_per_second, 7);
    EXPECT_EQ(handle()->retry_state.delay, 142857U);
}

TEST_F(Session, KeepsTheRateOfAnEarlierSessionsPolicy)
{
    host.config["config"] = R"({"user_api_rate_limit": 7})";
    ASSERT_TRUE(start());
    end();
    host.config["config"] = "{}";
    ASSERT_TRUE(start());
    EXPECT_EQ(tirval_i_onedrive_api_per_second, 7);
    EXPECT_EQ(handle()->retry_state.delay, 142857U);
}

TEST_F(Session, KeepsTheRateWhenThePolicyHasNoneOrZero)
{
    for (const char *policy : {"{}", R"({"user_api_rate_limit": 0})"}) {
        host.config["config"] = policy;
        ASSERT_TRUE(start());
        EXPECT_EQ(tirval_i_onedrive_api_per_second, 15) << policy;
        EXPECT_EQ(handle()->retry_state.delay, 66666U) << policy;
        end();
    }
}

TEST_F(Session, DoesNotPaceAtANegativeRate)
{
    host.config["config"] = R"({"user_api_rate_limit": -3})";
    ASSERT_TRUE(start());
    EXPECT_EQ(tirval_i_onedrive_api_per_second, -3);
    EXPECT_EQ(handle()->retry_state.delay, 0U);
}

TEST_F(Session, StartsAlsoWithAMissingOrBadPolicyAndWritesAnErrorLine)
{
    for (const char *policy : {"", "not JSON", "[]", R"({"user_api_rate_limit": "7"})"}) {
        const memory_channel channel(TIRVAL_ONEDRIVE_ERROR);
        host.config.erase("config");
        if (*policy != '\0') {
            host.config["config"] = policy;
        }
        ASSERT_TRUE(start()) << policy;
        EXPECT_EQ(handle()->retry_state.delay, 66666U) << policy;
        ASSERT_FALSE(channel.lines().empty()) << policy;
        EXPECT_THAT(channel.lines()[0],
                    StartsWith("ERROR tirval_onedrive_config_parse_json: exit: "))
            << policy;
        end();
    }
}

TEST_F(Session, DoesNotReadTheSettingsThatAreOnlyPublished)
{
    http_peer peer;
    const std::string url = peer.url("");
    const char *const before = tirval_i_onedrive_graph_url;
    ASSERT_TRUE(start());
    tirval_i_onedrive_graph_url = url.c_str();
    size_t answered = 0;
    for (const int32_t setting : {0, 1, 3, INT32_MAX}) {
        tirval_i_onedrive_max_retries = setting;
        tirval_i_onedrive_chunked_minimum = setting;
        for (int i = 0; i < 2; i++) {
            peer.answer(http_peer_answer::complete(503, "", {{"Retry-After", "0"}}));
        }
        EXPECT_FALSE(host.list("/My files"));
        answered += 2;
        EXPECT_EQ(peer.requests().size(), answered) << setting;
    }
    tirval_i_onedrive_max_retries = 3;
    tirval_i_onedrive_chunked_minimum = 0;
    tirval_i_onedrive_graph_url = before;
}

/* ---- The tables ---- */

TEST_F(Session, StartsBothTablesWithTheVirtualFolders)
{
    ASSERT_TRUE(start());
    for (tirval_hashtable_t *table : {&handle()->cache, &handle()->upload_state}) {
        EXPECT_EQ(tirval_hashtable_size(table), 4U);
        for (const char *path : {"/", "/My files", "/Shared", "/Shared libraries"}) {
            const auto *const info = tirval_onedrive_path_cache_query(table, path);
            ASSERT_NE(info, nullptr) << path;
            EXPECT_STREQ(info->name, path);
            EXPECT_EQ(info->type, TIRVAL_ONEDRIVE_FOLDER);
        }
    }
}

TEST_F(Session, AnswersTheVirtualFoldersWithoutARequest)
{
    ASSERT_TRUE(start());
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    for (const char *path : {"/", "/My files"}) {
        ASSERT_TRUE(host.stat(path)) << host.answer.text;
        ASSERT_EQ(host.records.size(), 1U);
        EXPECT_EQ(host.records[0].name, path);
        EXPECT_EQ(host.records[0].mode, 040700U);
    }
    EXPECT_THAT(channel.text(), Not(HasSubstr("API CALL!")));
}

/* ---- Ending ---- */

TEST_F(Session, FreesTheVirtualFoldersOfTheUploadTableAtItsEnd)
{
    ASSERT_TRUE(start());
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    const auto *const info = tirval_onedrive_path_cache_query(&handle()->upload_state, "/My files");
    ASSERT_NE(info, nullptr);
    end();
    EXPECT_THAT(channel.text(), HasSubstr("tirval_i_onedrive_destroy: exit\n"));
}

TEST_F(Session, FreesUploadsThatWereLeftAtItsEnd)
{
    ASSERT_TRUE(start());
    auto *const upload = static_cast<tirval_onedrive_upload_session_t *>(
        calloc(1, sizeof(tirval_onedrive_upload_session_t)));
    upload->url = strdup("https://upload.example");
    upload->exp = strdup("2100");
    upload->name = strdup("/My files/a");
    upload->part_array = json_array();
    json_t *const parts = json_incref(upload->part_array);
    ASSERT_EQ(tirval_onedrive_upload_state_update(&handle()->upload_state, upload, nullptr),
              TIRVAL_SUCCESS);
    end();
    EXPECT_EQ(parts->refcount, 1U) << "the record's reference is gone";
    json_decref(parts);
}

TEST_F(Session, LeavesTheTenantsTextAtItsEnd)
{
    ASSERT_TRUE(start());
    const tirval_i_onedrive_text_t tid(handle()->tid);
    host.end();
    EXPECT_STREQ(tid.get(), "X");
}

TEST_F(Session, ClosesItsRetryFileAtItsEnd)
{
    ASSERT_TRUE(start());
    const int fd = handle()->retry_state.fd;
    ASSERT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    end();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(size_of(state_folder + "/onedrive-r/S"), 24) << "the file stays";
}

/* ---- Debug lines ---- */

TEST_F(Session, ASuccessfulStartWritesNoExitLine)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    ASSERT_TRUE(start());
    EXPECT_EQ(channel.lines()[0], "TRACE tirval_i_onedrive_start: enter");
    EXPECT_THAT(channel.text(), Not(HasSubstr("tirval_i_onedrive_start: exit")));
}

TEST_F(Session, AFailedStartWritesItsErrorExitLine)
{
    host.config.clear();
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    EXPECT_FALSE(start());
    const tirval_i_onedrive_text_t left(copied_user_name);
    EXPECT_THAT(channel.text(), HasSubstr(": tirval_i_onedrive_start: exit: result=0x"));
}

TEST_F(Session, AnEndWritesEnterAndExit)
{
    ASSERT_TRUE(start());
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    end();
    EXPECT_EQ(channel.lines().front(), "TRACE tirval_i_onedrive_destroy: enter");
    EXPECT_EQ(channel.lines().back(), "TRACE tirval_i_onedrive_destroy: exit");
}

} // namespace
