// Stores with faults at each of their requests: the result, the attempts, and what is left behind.
#include "store_fixture.h"

#include <atomic>
#include <chrono>
#include <functional>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/* Which request of a store goes wrong. */
enum class place { content, time, session, first_part, last_part };

const char *name_of(place where)
{
    switch (where) {
    case place::content:
        return "content";
    case place::time:
        return "time";
    case place::session:
        return "session";
    case place::first_part:
        return "first_part";
    case place::last_part:
        return "last_part";
    }
    return "";
}

constexpr bool repeated = true;
constexpr bool final = false;

struct fault {
    const char *name;
    http_peer_answer answer;
    bool is_repeated;
    int code; /* of the reply; 0: `text` tells */
    std::string tag;
    std::string text;
};

const http_peer_headers at_once = {{"Retry-After", "0"}};
const std::string lost = "failed\n"; /* the REST library's own wording of a lost request */
const std::string no_memory = "System error in malloc";

http_peer_answer status(int code, const http_peer_headers &headers = {})
{
    return http_peer_answer::complete(code, "", headers);
}

http_peer_answer explained(int code, const std::string &reason,
                           const http_peer_headers &headers = {})
{
    return http_peer_answer::json(
        code, R"({"error":{"code":")" + reason + R"(","message":"because"}})", headers);
}

std::string reason_text(const std::string &reason)
{
    return "code: \"" + reason + "\"\nmessage: \"because\"";
}

std::vector<fault> faults()
{
    const char head[] = "HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n";
    return {
        {"reset_before_headers", http_peer_answer().reset(), repeated, 0, "", lost},
        {"closed_before_headers", http_peer_answer().close(), repeated, 0, "", lost},
        {"reset_in_headers", http_peer_answer().send("HTTP/1.1 200 O").pause(5ms).reset(), repeated,
         0, "", lost},
        {"reset_after_headers", http_peer_answer().send(head).pause(5ms).reset(), repeated, 0, "",
         lost},
        {"reset_in_answer",
         http_peer_answer().send(head + std::string(R"({"name":"a)")).pause(5ms).reset(), repeated,
         0, "", lost},
        {"closed_in_answer", http_peer_answer().send(head + std::string("{")).close(), repeated, 0,
         "", lost},
        {"stalled", http_peer_answer(), repeated, 0, "", "moved no data for too long"},
        {"stalled_in_answer", http_peer_answer().send(head), repeated, 0, "",
         "moved no data for too long"},
        {"no_http", http_peer_answer().send("SMTP ready\r\n\r\n").close(), final, 0, "", lost},
        {"truncated_json", http_peer_answer::json(200, R"({"name":"a)"), final, 0, "", no_memory},
        {"malformed_json", http_peer_answer::json(200, "<html>"), final, 0, "", no_memory},
        {"missing_body", status(200), final, 0, "", no_memory},
        {"redirect", status(302, {{"Location", "http://127.0.0.1:1/"}}), final, 0, "", no_memory},
        {"bad_request", status(400), final, 0, "", "Bad OneDrive request"},
        {"unauthorized", status(401), final, 550, "PERMISSION_DENIED", ""},
        {"forbidden", status(403), final, 550, "PERMISSION_DENIED", ""},
        {"forbidden_explained", explained(403, "accessDenied"), final, 0, "",
         reason_text("accessDenied")},
        {"not_found", status(404), final, 550, "PATH_NOT_FOUND", ""},
        {"conflict", status(409), final, 553, "PATH_EXISTS", ""},
        {"conflict_explained", explained(409, "nameAlreadyExists"), final, 0, "",
         reason_text("nameAlreadyExists")},
        {"precondition_failed", status(412), final, 0, "", no_memory},
        {"locked", status(423), final, 0, "", no_memory},
        {"locked_explained", explained(423, "resourceLocked"), final, 0, "",
         reason_text("resourceLocked")},
        {"too_many", status(429), repeated, 451, "TOO_BUSY", ""},
        {"too_many_with_time", status(429, at_once), repeated, 451, "TOO_BUSY", ""},
        {"too_many_explained", explained(429, "activityLimitReached"), final, 0, "",
         reason_text("activityLimitReached")},
        {"too_many_explained_with_time", explained(429, "activityLimitReached", at_once), repeated,
         0, "", reason_text("activityLimitReached")},
        {"internal_error", status(500), final, 500, "INTERNAL_ERROR", ""},
        {"internal_error_with_time", status(500, at_once), repeated, 500, "INTERNAL_ERROR", ""},
        {"unavailable", status(503), final, 500, "INTERNAL_ERROR", ""},
        {"unavailable_with_time", status(503, at_once), repeated, 500, "INTERNAL_ERROR", ""},
        {"out_of_space", status(507), final, 500, "INTERNAL_ERROR", ""},
        {"out_of_space_explained", explained(507, "quotaLimitReached"), final, 0, "",
         reason_text("quotaLimitReached")},
        {"error_without_reason", http_peer_answer::json(500, "{}"), final, 500, "INTERNAL_ERROR",
         ""},
    };
}

class RecvFault : public StoreFixture {
  protected:
    static constexpr std::size_t part = 1000;

    RecvFault() { tirval_i_onedrive_progress_timeout_ms = 60; }

    static bool in_parts(place where)
    {
        return where == place::first_part || where == place::last_part;
    }
    static bool comes_here(place where, const http_peer_request &request)
    {
        switch (where) {
        case place::content:
            return request.method == "PUT" && !request.header("Content-Range");
        case place::time:
            return request.method == "PATCH";
        case place::session:
            return request.method == "POST";
        case place::first_part:
            return request.header("Content-Range") == "bytes 0-999/3000";
        case place::last_part:
            return request.header("Content-Range") == "bytes 2000-2999/3000";
        }
        return false;
    }
    http_peer_answer good(const http_peer_request &request) const
    {
        return request.method == "POST"          ? session_made()
               : request.header("Content-Range") ? part_stored(request)
                                                 : stored();
    }
    /* From now on, `answer` (null: what is right) to the first requests at that place. */
    void answer_there(place where, const http_peer_answer *answer, std::size_t times = SIZE_MAX)
    {
        arrived = 0;
        for (http_peer *peer : {&service, &parts}) {
            peer->on_request([this, where, answer, times](const http_peer_request &request) {
                const bool here = comes_here(where, request);
                return here && ++arrived <= times && answer != nullptr ? *answer : good(request);
            });
        }
    }
    /* Since the answer was chosen. */
    std::size_t attempts() const { return arrived; }
    /* A store that has the request at that place. */
    bool store_with(place where)
    {
        host.modification_time = where == place::time ? 0 : -1;
        if (in_parts(where)) {
            if (record() == nullptr) {
                enter_record(part, 3 * part, parts.url("/up"));
            }
            return store_through_record(small);
        }
        return store(where == place::session ? large : small);
    }
    void expect_state_after_failure(place where)
    {
        EXPECT_EQ(host.answers, 1);
        EXPECT_EQ(record() != nullptr, in_parts(where));
        EXPECT_EQ(session.cached(path) != nullptr, where == place::time);
        EXPECT_EQ(host.begins, where == place::session ? 0 : 1);
    }
    std::atomic<std::size_t> arrived = 0; /* requests at the place */
    const std::string small = content_of(3 * part);
    const std::string large = std::string(simple_limit + 1, 'x');
};

class RecvFaultAt : public RecvFault, public testing::WithParamInterface<fault> {
  protected:
    static constexpr place places[] = {place::content, place::time, place::session,
                                       place::first_part, place::last_part};

    void expect_reported(place where)
    {
        const fault &what = GetParam();
        EXPECT_EQ(host.answer.code, what.code) << host.answer.text;
        EXPECT_EQ(host.answer.tag, what.tag);
        EXPECT_THAT(host.answer.text, HasSubstr(what.text));
        expect_state_after_failure(where);
    }
    /* As if nothing had been stored. */
    void forget_store()
    {
        tirval_onedrive_path_cache_remove(&session.handle()->cache, path);
        tirval_onedrive_upload_state_remove(&session.handle()->upload_state, path);
    }
};

TEST_P(RecvFaultAt, IsReportedOnceAndASecondTrySucceeds)
{
    for (const place where : places) {
        SCOPED_TRACE(name_of(where));
        answer_there(where, &GetParam().answer);
        EXPECT_FALSE(store_with(where));
        const std::size_t most = where == place::time ? 2 : 3;
        EXPECT_EQ(attempts(), GetParam().is_repeated ? most : 1U);
        expect_reported(where);
        answer_there(where, nullptr);
        EXPECT_TRUE(store_with(where)) << host.answer.text;
        EXPECT_EQ(record(), nullptr);
        EXPECT_NE(session.cached(path), nullptr);
        forget_store();
    }
}

TEST_P(RecvFaultAt, OnceIsOvercomeWhereItIsRepeated)
{
    for (const place where : places) {
        SCOPED_TRACE(name_of(where));
        answer_there(where, &GetParam().answer, 1);
        EXPECT_EQ(store_with(where), GetParam().is_repeated) << host.answer.text;
        EXPECT_EQ(attempts(), GetParam().is_repeated ? 2U : 1U);
        EXPECT_EQ(host.answers, 1);
        forget_store();
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, RecvFaultAt, testing::ValuesIn(faults()),
                         [](const testing::TestParamInfo<fault> &chosen) {
                             return chosen.param.name;
                         });

/* ---- Nobody listens ---- */

class RecvRefused : public RecvFault {
  protected:
    void expect_attempts(std::size_t count)
    {
        EXPECT_EQ(trace.count("API CALL!\n"), count);
        EXPECT_THAT(host.answer.text, HasSubstr(lost));
        EXPECT_EQ(host.answers, 1);
    }
    const refusing_port nobody;
    const std::string nobodys_url = nobody.url("");
    const debug_trace trace{TIRVAL_ONEDRIVE_DEBUG};
};

TEST_F(RecvRefused, AtTheContentIsTriedThreeTimes)
{
    tirval_i_onedrive_graph_url = nobodys_url.c_str();
    EXPECT_FALSE(store(small));
    expect_attempts(3);
    expect_state_after_failure(place::content);
}

TEST_F(RecvRefused, AtTheTimeIsTriedTwiceAfterTheContent)
{
    service.answer(stored());
    host.modification_time = 0;
    host.on_begin = [&] { tirval_i_onedrive_graph_url = nobodys_url.c_str(); };
    EXPECT_FALSE(store(small));
    expect_attempts(1 + 2);
    expect_state_after_failure(place::time);
}

TEST_F(RecvRefused, AtTheSessionIsTriedThreeTimes)
{
    tirval_i_onedrive_graph_url = nobodys_url.c_str();
    EXPECT_FALSE(store(large));
    expect_attempts(3);
    expect_state_after_failure(place::session);
}

TEST_F(RecvRefused, AtAPartIsTriedThreeTimes)
{
    enter_record(part, 3 * part, nobody.url("/up"));
    EXPECT_FALSE(store_through_record(small));
    expect_attempts(3);
    expect_state_after_failure(place::first_part);
}

/* ---- A connection that is lost within the content ---- */

/* Whether a request that was not answered has brought the content's beginning. */
void expect_prefix(const http_peer_request &request, const std::string &content, std::size_t cut)
{
    EXPECT_EQ(request.body_size, cut);
    EXPECT_TRUE(content.starts_with(request.body));
}

http_peer_answer cut_after(std::size_t bytes)
{
    return http_peer_answer().stop_body_after(bytes).reset();
}

class RecvCut : public RecvFault {
  protected:
    static constexpr std::size_t length = 400000;
    static constexpr std::size_t cuts[] = {0,      1,      2,      9972,   9973,   9974,   16383,
                                           16384,  16385,  65535,  65536,  65537,  131072, 199999,
                                           200000, 262144, 333333, 399998, 399999, 400000};
    RecvCut() { tirval_i_onedrive_progress_timeout_ms = 30000; }
};

TEST_F(RecvCut, TheContentIsSentAgainFromItsFirstByte)
{
    const std::string content = content_of(length);
    host.upload_chunk = 9973;
    std::size_t seen = 0;
    for (const std::size_t cut : cuts) {
        SCOPED_TRACE(cut);
        service.answer(cut_after(cut));
        service.answer(cut_after(length - cut));
        service.answer(stored());
        EXPECT_TRUE(store(content)) << host.answer.text;
        const auto requests = service.requests();
        ASSERT_EQ(requests.size(), seen + 3);
        expect_prefix(requests[seen], content, cut);
        expect_prefix(requests[seen + 1], content, length - cut);
        EXPECT_TRUE(requests[seen + 2].body == content);
        EXPECT_EQ(host.received, content.size()) << "the client sends once";
        seen += 3;
    }
}

TEST_F(RecvCut, EachPartIsSentAgainFromItsFirstByte)
{
    const std::string content = content_of(3 * length);
    host.upload_chunk = 9973;
    for (const std::size_t cut : cuts) {
        SCOPED_TRACE(cut);
        http_peer fresh;
        enter_record(length, content.size(), fresh.url("/up"));
        for (const auto &answer : {session_state(), session_state(), stored()}) {
            fresh.answer(cut_after(cut));
            fresh.answer(cut_after(length - cut));
            fresh.answer(answer);
        }
        EXPECT_TRUE(store_through_record(content)) << host.answer.text;
        const auto requests = fresh.requests();
        ASSERT_EQ(requests.size(), 9U);
        for (std::size_t i = 0; i < 3; ++i) {
            const std::string expected = content.substr(i * length, length);
            expect_prefix(requests[3 * i], expected, cut);
            expect_prefix(requests[3 * i + 1], expected, length - cut);
            EXPECT_TRUE(requests[3 * i + 2].body == expected) << i;
        }
        EXPECT_EQ(host.received, content.size());
    }
}

class RecvLongCut : public RecvCut, public testing::WithParamInterface<std::size_t> {};

TEST_P(RecvLongCut, AFullPartIsSentAgainFromItsFirstByte)
{
    const std::string content = content_of(part_size + 1);
    service.answer(session_made());
    parts.answer(cut_after(GetParam()));
    EXPECT_TRUE(store(content)) << host.answer.text;
    const auto requests = parts.requests();
    ASSERT_EQ(requests.size(), 3U);
    expect_prefix(requests[0], content, GetParam());
    EXPECT_TRUE(requests[1].body == content.substr(0, part_size));
    EXPECT_TRUE(requests[2].body == content.substr(part_size));
}

INSTANTIATE_TEST_SUITE_P(Positions, RecvLongCut,
                         testing::Values(0, 1, 1048575, 1048576, 1048577, 5000003, part_size - 1,
                                         part_size));

TEST_F(RecvFault, AConnectionThatIsLostThreeTimesFailsTheStore)
{
    const std::string content = content_of(400000);
    for (const std::size_t cut : {1U, 200000U, 399999U}) {
        service.answer(http_peer_answer().stop_body_after(cut).reset());
    }
    EXPECT_FALSE(store(content));
    EXPECT_THAT(host.answer.text, HasSubstr(lost));
    EXPECT_EQ(service.requests().size(), 3U);
    expect_state_after_failure(place::content);
}

TEST_F(RecvFault, AnAnswerBeforeTheContentIsReadIsTakenAndTheContentSentAgain)
{
    const std::string content = content_of(simple_limit);
    service.answer(http_peer_answer::complete(429).before_body());
    service.answer(stored());
    tirval_i_onedrive_progress_timeout_ms = 30000;
    EXPECT_TRUE(store(content)) << host.answer.text;
    ASSERT_EQ(service.requests().size(), 2U);
    EXPECT_TRUE(service.requests().at(1).body == content);
}

TEST_F(RecvFault, ARefusalBeforeTheContentIsReadIsReported)
{
    service.answer(http_peer_answer::complete(403).before_body());
    tirval_i_onedrive_progress_timeout_ms = 30000;
    EXPECT_FALSE(store(content_of(simple_limit)));
    EXPECT_EQ(host.answer.tag, "PERMISSION_DENIED") << host.answer.text;
    EXPECT_EQ(service.requests().size(), 1U);
}

TEST_F(RecvFault, APeerThatTakesTheContentSlowlyIsNotTakenForIdle)
{
    const std::string content = content_of(2000000);
    service.answer(http_peer_answer(stored()).read_slowly(200000, 40ms));
    tirval_i_onedrive_progress_timeout_ms = 100;
    EXPECT_TRUE(store(content)) << host.answer.text;
    EXPECT_EQ(service.requests().size(), 1U);
    EXPECT_TRUE(service.requests().at(0).body == content);
}

/* ---- The client ---- */

TEST_F(RecvFault, AClientThatIsLostInTheContentEndsTheStoreAtOnce)
{
    service.on_request([](const auto &) { return stored(); });
    host.receive_fails_after = 1500;
    EXPECT_FALSE(store(small));
    EXPECT_EQ(host.answer.code, 426) << host.answer.text;
    EXPECT_LE(service.requests().size(), 1U);
    expect_state_after_failure(place::content);
}

TEST_F(RecvFault, AClientWhoseDataEndsEarlyFailsTheStore)
{
    service.on_request([](const auto &) { return stored(); });
    host.upload = small.substr(0, 1500);
    EXPECT_FALSE(host.recv(path, static_cast<tirval_off_t>(small.size())));
    EXPECT_EQ(host.answer.code, 451) << host.answer.text;
    EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    EXPECT_LE(service.requests().size(), 1U);
    expect_state_after_failure(place::content);
}

TEST_F(RecvFault, AnAbortInTheContentEndsTheStoreAtOnce)
{
    service.on_request([](const auto &) {
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
        return http_peer_answer();
    });
    EXPECT_FALSE(store(small));
    EXPECT_EQ(host.answer.type, TIRVAL_ERROR_TYPE_CANCELLED) << host.answer.text;
    EXPECT_EQ(service.requests().size(), 1U);
    expect_state_after_failure(place::content);
}

} // namespace
