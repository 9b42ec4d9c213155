/* The credential file, and its renewal at a token endpoint that the test plays. */
#include "credential.h"

#include "child_process.h"
#include "http_peer.h"
#include "temp_dir.h"
#include "unique_fd.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <memory>

using namespace tirval::server;
using testing::HasSubstr;
using testing::Not;

namespace {

struct json_deleter_t {
    void operator()(json_t *json) const { json_decref(json); }
};
using json_ptr_t = std::unique_ptr<json_t, json_deleter_t>;

json_ptr_t parsed(const std::string &text)
{
    return json_ptr_t{json_loads(text.c_str(), 0, nullptr)};
}

std::string member(const std::string &text, const char *key)
{
    const json_ptr_t json = parsed(text);
    const char *value = json_string_value(json_object_get(json.get(), key));
    return value == nullptr ? "(none)" : value;
}

std::time_t now()
{
    return std::time(nullptr);
}

std::string expiry_text(std::time_t at)
{
    std::tm utc{};
    gmtime_r(&at, &utc);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.123456+00:00", &utc);
    return text;
}

std::time_t expiry_of(const std::string &text)
{
    std::tm utc{};
    const std::string expiry = member(text, "token_expiry");
    EXPECT_TRUE(expiry.ends_with(".000000+00:00")) << expiry;
    strptime(expiry.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    return timegm(&utc);
}

bool has_open(pid_t pid, const std::filesystem::path &file)
{
    std::error_code error;
    for (const auto &entry :
         std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/fd", error}) {
        if (std::filesystem::read_symlink(entry.path(), error) == file) {
            return true;
        }
    }
    return false;
}

class Credential : public testing::Test {
  protected:
    /* A credential that can be renewed at the peer. */
    static json_ptr_t make_json(std::int64_t life, const std::string &endpoint = "")
    {
        json_ptr_t json{json_object()};
        set(json, "access_token", "old-access");
        set(json, "token_expiry", expiry_text(now() + life));
        set(json, "sub", "subject-1");
        set(json, "tid", "tenant-1");
        set(json, "refresh_token", "old/refresh+1");
        set(json, "client_id", "client 1");
        set(json, "scope", "Files.ReadWrite.All offline_access");
        if (!endpoint.empty()) {
            set(json, "token_endpoint", endpoint);
        }
        return json;
    }

    static void set(const json_ptr_t &json, const char *key, const std::string &value)
    {
        json_object_set_new(json.get(), key, json_string(value.c_str()));
    }

    void save(const json_ptr_t &json, mode_t mode = 0600)
    {
        const std::unique_ptr<char, decltype(&std::free)> text{json_dumps(json.get(), 0),
                                                               &std::free};
        dir_.write("c.json", text.get(), mode);
    }

    void save_renewable(std::int64_t life) { save(make_json(life, peer().url("/token"))); }

    http_peer &peer()
    {
        if (peer_ == nullptr) {
            peer_ = std::make_unique<http_peer>();
        }
        return *peer_;
    }

    account_t account() const { return {"anna", getuid(), getgid(), dir_.path().string()}; }

    credential_source_t source() const { return {"$HOME/c.json", account()}; }

    /* What is said about the file as it stands. */
    static std::string refusal(credential_source_t source, std::string *client_text = nullptr)
    {
        try {
            source.fetch();
        } catch (const credential_error_t &error) {
            if (client_text != nullptr) {
                *client_text = error.client_text();
            }
            return error.what();
        }
        return "taken";
    }

    std::string refusal(std::string *client_text = nullptr) const
    {
        return refusal(source(), client_text);
    }

    temp_dir_t dir_;
    std::unique_ptr<http_peer> peer_;
};

using CredentialFile = Credential;
using CredentialPath = Credential;
using CredentialRenewal = Credential;

} // namespace

/* ---- The path ------------------------------------------------------------------------------ */

TEST_F(CredentialPath, HomeAndNameAreThoseOfTheAccount)
{
    const account_t account{"anna", getuid(), getgid(), "/home/$LOGNAME"};
    EXPECT_EQ(credential_source_t("$HOME/x/$LOGNAME-$LOGNAME.json", account).path(),
              "/home/$LOGNAME/x/anna-anna.json");
    EXPECT_EQ(credential_source_t("/etc/c.json", account).path(), "/etc/c.json");
}

TEST_F(CredentialPath, TheUserDatabaseCountsAndNotTheEnvironment)
{
    const auto self = find_account(getuid());
    ASSERT_TRUE(self.has_value());
    setenv("HOME", "/nowhere", 1);
    setenv("LOGNAME", "nobody-else", 1);
    EXPECT_EQ(credential_source_t("$HOME/$LOGNAME").path(), self->home + "/" + self->name);
}

TEST_F(CredentialPath, AUserWithoutAHomeIsRefusedWhereOneIsNeeded)
{
    const account_t homeless{"anna", getuid(), getgid(), ""};
    EXPECT_THROW(credential_source_t("$HOME/c.json", homeless), credential_error_t);
    EXPECT_EQ(credential_source_t("/c/$LOGNAME", homeless).path(), "/c/anna");
}

/* ---- The file ------------------------------------------------------------------------------ */

TEST_F(CredentialFile, TheStorageGetsFourMembersAndNoMore)
{
    const std::time_t expiry = now() + 3600;
    save(make_json(3600));
    const std::string text = source().fetch();
    EXPECT_EQ(json_object_size(parsed(text).get()), 4U);
    EXPECT_EQ(member(text, "access_token"), "old-access");
    EXPECT_EQ(member(text, "sub"), "subject-1");
    EXPECT_EQ(member(text, "tid"), "tenant-1");
    EXPECT_GE(expiry_of(text), expiry);
    EXPECT_LE(expiry_of(text), now() + 3600);
    EXPECT_THAT(text, Not(HasSubstr("refresh")));
}

TEST_F(CredentialFile, ATenantThatIsNotThereIsLeftOut)
{
    auto json = make_json(3600);
    json_object_del(json.get(), "tid");
    save(json);
    EXPECT_EQ(json_object_get(parsed(source().fetch()).get(), "tid"), nullptr);
    json_object_set_new(json.get(), "tid", json_null());
    save(json);
    EXPECT_EQ(json_object_get(parsed(source().fetch()).get(), "tid"), nullptr);
}

TEST_F(CredentialFile, TheExpiryIsHandedOverInUtc)
{
    auto json = make_json(3600);
    set(json, "token_expiry", "2099-01-01T05:30:00.999999+05:30");
    save(json);
    EXPECT_EQ(member(source().fetch(), "token_expiry"), "2099-01-01T00:00:00.000000+00:00");
    set(json, "token_expiry", "2098-12-31T18:45:00.000000-05:15");
    save(json);
    EXPECT_EQ(member(source().fetch(), "token_expiry"), "2099-01-01T00:00:00.000000+00:00");
}

TEST_F(CredentialFile, AFileThatOthersMayUseIsRefused)
{
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0666U}) {
        save(make_json(3600), mode);
        EXPECT_THAT(refusal(), HasSubstr("make it mode 0600")) << std::oct << mode;
    }
}

TEST_F(CredentialFile, AFileOfSomebodyElseIsRefused)
{
    save(make_json(3600));
    const account_t other{"bert", getuid() + 1, getgid(), dir_.path().string()};
    EXPECT_THAT(refusal({"$HOME/c.json", other}), HasSubstr("belongs to another user"));
}

TEST_F(CredentialFile, OnlyAPlainFileIsTaken)
{
    std::string client_text;
    EXPECT_EQ(refusal(&client_text),
              (dir_ / "c.json").string() + ": cannot be opened: No such file or directory");
    EXPECT_EQ(client_text, "There is no usable credential for the storage service: sign in first.");
    save(make_json(3600));
    std::filesystem::rename(dir_ / "c.json", dir_ / "real");
    std::filesystem::create_symlink(dir_ / "real", dir_ / "c.json");
    EXPECT_THAT(refusal(), HasSubstr("is a link"));
    std::filesystem::remove(dir_ / "c.json");
    std::filesystem::create_directory(dir_ / "c.json");
    EXPECT_THAT(refusal(), HasSubstr("is not a plain file"));
    std::filesystem::remove(dir_ / "c.json");
    ASSERT_EQ(mkfifo((dir_ / "c.json").c_str(), 0600), 0);
    EXPECT_THAT(refusal(), HasSubstr("is not a plain file"));
}

TEST_F(CredentialFile, MoreThan64KiBAreRefused)
{
    auto json = make_json(3600);
    set(json, "note", std::string(65'536, 'x'));
    save(json);
    EXPECT_THAT(refusal(), HasSubstr("is larger than 64 KiB"));
    set(json, "note", std::string(60'000, 'x'));
    save(json);
    EXPECT_EQ(refusal(), "taken");
}

TEST_F(CredentialFile, TextThatIsNoJsonObjectIsRefusedWithoutQuotingIt)
{
    dir_.write("c.json", "{\"access_token\": \"hush-hush\" \"sub\"}");
    EXPECT_THAT(refusal(),
                testing::AllOf(HasSubstr("is not JSON (line 1)"), Not(HasSubstr("hush"))));
    dir_.write("c.json", "");
    EXPECT_THAT(refusal(), HasSubstr("is not JSON"));
    dir_.write("c.json", "[]");
    EXPECT_THAT(refusal(), HasSubstr("is not a JSON object"));
}

TEST_F(CredentialFile, EveryNeededMemberMustBeAText)
{
    for (const char *key : {"access_token", "token_expiry", "sub"}) {
        auto json = make_json(3600);
        json_object_del(json.get(), key);
        save(json);
        EXPECT_THAT(refusal(), HasSubstr("\"" + std::string{key} + "\" is missing"));
        json_object_set_new(json.get(), key, json_integer(7));
        save(json);
        EXPECT_THAT(refusal(), HasSubstr("\"" + std::string{key} + "\" is not a text"));
    }
    auto json = make_json(3600);
    json_object_set_new(json.get(), "tid", json_integer(7));
    save(json);
    EXPECT_THAT(refusal(), HasSubstr("\"tid\" is not a text"));
}

TEST_F(CredentialFile, ASubjectThatCannotBeAFileNameIsRefused)
{
    for (const std::string &sub :
         {std::string{"."}, std::string{".."}, std::string{"a/b"}, std::string{"../x"},
          std::string{"$HOME"}, std::string{"a\nb"}, std::string{"a\x7f"}, std::string(129, 'a')}) {
        auto json = make_json(3600);
        set(json, "sub", sub);
        save(json);
        EXPECT_THAT(refusal(), HasSubstr("\"sub\" cannot serve as a name")) << sub;
    }
    for (const std::string &sub : {std::string{"...a"}, std::string(128, 'a')}) {
        auto json = make_json(3600);
        set(json, "sub", sub);
        save(json);
        EXPECT_EQ(refusal(), "taken") << sub;
    }
}

TEST_F(CredentialFile, AnExpiryOfAnotherFormIsRefused)
{
    for (const char *expiry :
         {"2099-01-01T00:00:00Z", "2099-01-01T00:00:00+00:00", "2099-01-01T00:00:00.000000Z",
          "2099-01-01 00:00:00.000000+00:00", "2099-01-01T00:00:00.000000+0000",
          "2099-01-01T00:00:00.00000x+00:00", "4070908800"}) {
        auto json = make_json(3600);
        set(json, "token_expiry", expiry);
        save(json);
        EXPECT_THAT(refusal(), HasSubstr("\"token_expiry\" is not of the form")) << expiry;
    }
}

TEST_F(CredentialFile, AnAccessTokenWithALineBreakIsRefused)
{
    auto json = make_json(3600);
    set(json, "access_token", "a\r\nX-Header: b");
    save(json);
    EXPECT_THAT(refusal(), HasSubstr("\"access_token\" holds control characters"));
}

TEST_F(CredentialFile, AnotherAccountsCredentialIsNotTakenInMidSession)
{
    auto json = make_json(3600);
    save(json);
    credential_source_t session = source();
    session.fetch();
    set(json, "access_token", "newer");
    save(json);
    EXPECT_EQ(member(session.fetch(), "access_token"), "newer");
    set(json, "sub", "subject-2");
    save(json);
    EXPECT_THROW(session.fetch(), credential_error_t);
    set(json, "sub", "subject-1");
    set(json, "tid", "tenant-2");
    save(json);
    EXPECT_THROW(session.fetch(), credential_error_t);
    EXPECT_EQ(refusal(), "taken");
}

/* ---- Renewal ------------------------------------------------------------------------------- */

TEST_F(CredentialRenewal, ATokenWithFiveMinutesLeftIsUsedAsItIs)
{
    save_renewable(310);
    EXPECT_EQ(member(source().fetch(), "access_token"), "old-access");
    EXPECT_EQ(peer().requests().size(), 0U);
}

TEST_F(CredentialRenewal, ATokenWithLessIsRenewedAtItsEndpoint)
{
    peer().answer(http_peer_answer::json(
        200, R"({"token_type":"Bearer","access_token":"new-access","expires_in":3600,)"
             R"("refresh_token":"new-refresh"})"));
    save_renewable(290);
    const std::time_t before = now();
    const std::string text = source().fetch();
    EXPECT_EQ(member(text, "access_token"), "new-access");
    EXPECT_GE(expiry_of(text), before + 3600);
    EXPECT_LE(expiry_of(text), now() + 3600);

    ASSERT_EQ(peer().requests().size(), 1U);
    const auto request = peer().requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/token");
    EXPECT_EQ(request.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_FALSE(request.header("Authorization").has_value());
    EXPECT_EQ(request.body, "grant_type=refresh_token&client_id=client%201&refresh_token="
                            "old%2Frefresh%2B1&scope=Files.ReadWrite.All%20offline_access");
}

TEST_F(CredentialRenewal, TheFileHoldsTheNewTokensAndKeepsTheRest)
{
    peer().answer(http_peer_answer::json(
        200, R"({"access_token":"new-access","expires_in":3600,"refresh_token":"new-refresh",)"
             R"("sub":"intruder","tid":"intruder","scope":"less"})"));
    auto json = make_json(10, peer().url("/token"));
    set(json, "note", "mine");
    save(json);
    source().fetch();
    const std::string file = dir_.read("c.json");
    EXPECT_EQ(member(file, "access_token"), "new-access");
    EXPECT_EQ(member(file, "refresh_token"), "new-refresh");
    EXPECT_GT(expiry_of(file), now() + 3500);
    EXPECT_EQ(member(file, "sub"), "subject-1");
    EXPECT_EQ(member(file, "tid"), "tenant-1");
    EXPECT_EQ(member(file, "scope"), "Files.ReadWrite.All offline_access");
    EXPECT_EQ(member(file, "note"), "mine");
    struct stat status {};
    ASSERT_EQ(stat((dir_ / "c.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_FALSE(std::filesystem::exists(dir_ / "c.json.new"));
}

TEST_F(CredentialRenewal, SubjectAndTenantNeverComeFromTheAnswer)
{
    peer().answer(http_peer_answer::json(
        200, R"({"access_token":"new-access","expires_in":3600,"sub":"x","tid":"y"})"));
    save_renewable(10);
    const std::string text = source().fetch();
    EXPECT_EQ(member(text, "sub"), "subject-1");
    EXPECT_EQ(member(text, "tid"), "tenant-1");
}

TEST_F(CredentialRenewal, WithoutANewRefreshTokenTheOldOneStays)
{
    peer().answer(http_peer_answer::json(200, R"({"access_token":"new","expires_in":"3600"})"));
    save_renewable(10);
    EXPECT_EQ(member(source().fetch(), "access_token"), "new");
    EXPECT_EQ(member(dir_.read("c.json"), "refresh_token"), "old/refresh+1");
}

TEST_F(CredentialRenewal, TheNextFetchFindsTheRenewedToken)
{
    peer().answer(http_peer_answer::json(200, R"({"access_token":"new","expires_in":3600})"));
    save_renewable(10);
    credential_source_t session = source();
    session.fetch();
    EXPECT_EQ(member(session.fetch(), "access_token"), "new");
    EXPECT_EQ(peer().requests().size(), 1U);
}

TEST_F(CredentialRenewal, WhenItFailsATokenThatStillLivesIsUsed)
{
    for (const auto &answer :
         {http_peer_answer::json(503, "{}"), http_peer_answer::json(200, "{}"),
          http_peer_answer::json(400, R"({"error":"invalid_grant"})"),
          http_peer_answer::complete(200, "<html>"), http_peer_answer{}.reset()}) {
        peer().answer(answer);
        save_renewable(200);
        EXPECT_EQ(member(source().fetch(), "access_token"), "old-access");
        EXPECT_EQ(member(dir_.read("c.json"), "refresh_token"), "old/refresh+1");
        EXPECT_FALSE(std::filesystem::exists(dir_ / "c.json.new"));
    }
    EXPECT_EQ(peer().requests().size(), 5U);
}

TEST_F(CredentialRenewal, AnEndedGrantTellsTheUserToSignInAgain)
{
    for (const char *code : {"invalid_grant", "interaction_required", "consent_required"}) {
        peer().answer(http_peer_answer::json(400, R"({"error":")" + std::string{code} + R"("})"));
        save_renewable(90);
        std::string client_text;
        EXPECT_EQ(refusal(&client_text),
                  "the token endpoint refused the renewal with status 400 (" + std::string{code} +
                      ")");
        EXPECT_EQ(client_text, "Your access to the storage service has ended: sign in again.");
    }
}

TEST_F(CredentialRenewal, AnEndpointInTroubleTellsTheUserToTryLater)
{
    for (const auto &answer :
         {http_peer_answer::json(503, "{}"), http_peer_answer::complete(200, "<html>"),
          http_peer_answer::json(200, R"({"access_token":"a"})"),
          http_peer_answer::json(200, R"({"access_token":"a","expires_in":-1})"),
          http_peer_answer::json(200, R"({"access_token":"a\nb","expires_in":60})"),
          http_peer_answer::json(200, R"({"expires_in":60})"), http_peer_answer{}.reset(),
          http_peer_answer::json(302, "{}", {{"Location", "https://elsewhere.example/"}})}) {
        peer().answer(answer);
        save_renewable(90);
        std::string client_text;
        const std::string reason = refusal(&client_text);
        EXPECT_THAT(reason, HasSubstr("the token endpoint"));
        EXPECT_THAT(reason, Not(HasSubstr("refresh+1")));
        EXPECT_EQ(client_text,
                  "Your access to the storage service could not be renewed: try again later.");
    }
    EXPECT_EQ(peer().requests().size(), 8U);
}

TEST_F(CredentialRenewal, WithoutWhatItNeedsTheUserSignsInAgain)
{
    for (const char *key : {"refresh_token", "client_id", "token_endpoint"}) {
        auto json = make_json(-5, peer().url("/token"));
        json_object_del(json.get(), key);
        save(json);
        std::string client_text;
        EXPECT_THAT(refusal(&client_text),
                    HasSubstr("cannot be renewed: \"" + std::string{key} + "\" is missing"));
        EXPECT_THAT(client_text, HasSubstr("sign in again"));
    }
    EXPECT_EQ(peer().requests().size(), 0U);
}

TEST_F(CredentialRenewal, RefreshTokensGoToSafeEndpointsOnly)
{
    save(make_json(10, "http://192.0.2.1/token"));
    EXPECT_THAT(refusal(), HasSubstr("\"token_endpoint\": plain http is for this machine alone"));
    save(make_json(10, "ftp://127.0.0.1/token"));
    EXPECT_THAT(refusal(), HasSubstr("is not https"));
}

TEST_F(CredentialRenewal, ItIsNotBegunWhereItsResultCouldNotBeSaved)
{
    save_renewable(10);
    /* a folder in the way, which also root cannot overwrite */
    std::filesystem::create_directories(dir_ / "c.json.new" / "x");
    EXPECT_THAT(refusal(), HasSubstr("c.json.new: cannot be made: File exists"));
    std::filesystem::remove_all(dir_ / "c.json.new");
    std::filesystem::remove(dir_ / "c.json.lock");
    std::filesystem::create_directory(dir_ / "c.json.lock");
    EXPECT_THAT(refusal(), HasSubstr("c.json.lock: cannot be opened"));
    EXPECT_EQ(peer().requests().size(), 0U);
}

TEST_F(CredentialRenewal, WhatAKilledProcessLeftBehindIsNoHindrance)
{
    peer().answer(http_peer_answer::json(200, R"({"access_token":"new","expires_in":3600})"));
    save_renewable(10);
    dir_.write("c.json.new", "half a crede");
    dir_.write("c.json.lock", "");
    EXPECT_EQ(member(source().fetch(), "access_token"), "new");
    EXPECT_EQ(member(dir_.read("c.json"), "access_token"), "new");
}

TEST_F(CredentialRenewal, SessionsSideBySideRenewOnceBetweenThem)
{
    /* the children are forked before this process has a second thread, and wait for the file */
    const auto fetch_when_there = [this] {
        while (!std::filesystem::exists(dir_ / "go")) {
            usleep(1000);
        }
        return member(source().fetch(), "access_token");
    };
    child_process_t first{fetch_when_there};
    child_process_t second{fetch_when_there};
    child_process_t third{fetch_when_there};
    const std::string body =
        R"({"access_token":"shared","expires_in":3600,"refresh_token":"next"})";
    peer().on_request([&](const http_peer_request &) {
        return http_peer_answer{}
            .pause(std::chrono::milliseconds{200})
            .send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                  body);
    });
    save_renewable(10);
    dir_.write("go", "");
    EXPECT_EQ(first.wait().text, "shared");
    EXPECT_EQ(second.wait().text, "shared");
    EXPECT_EQ(third.wait().text, "shared");
    EXPECT_EQ(peer().requests().size(), 1U);
    EXPECT_EQ(member(dir_.read("c.json"), "refresh_token"), "next");
}

TEST_F(CredentialRenewal, ATokenThatAnotherSessionHasJustRenewedIsTakenHoweverShortItLives)
{
    const unique_fd_t lock{open((dir_ / "c.json.lock").c_str(), O_RDWR | O_CREAT, 0600)};
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(lock.get(), F_OFD_SETLK, &whole), 0);
    save(make_json(10, "http://127.0.0.1:1/nobody-answers"));
    child_process_t waiting{[this] { return member(source().fetch(), "access_token"); }};
    while (!has_open(waiting.pid(), dir_ / "c.json.lock")) {
        usleep(1000);
    }
    auto renewed = make_json(200, "http://127.0.0.1:1/nobody-answers");
    set(renewed, "access_token", "theirs");
    save(renewed);
    whole.l_type = F_UNLCK;
    ASSERT_EQ(fcntl(lock.get(), F_OFD_SETLK, &whole), 0);
    EXPECT_EQ(waiting.wait().text, "theirs");
}
