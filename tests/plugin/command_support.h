/*
 * What the tests of the commands share: a session with a scripted service behind the entries, and
 * what a service does wrong.  To be included by one source of a program, for its sleeps are seen
 * and not slept.
 */
#ifndef TIRVAL_TESTS_COMMAND_SUPPORT_H
#define TIRVAL_TESTS_COMMAND_SUPPORT_H

#include "graph_script.h"
#include "memory_backend.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

inline std::vector<unsigned> sleeps; /* seconds */
inline error_place answered_place;   /* where the last answer's error says that it was made */

// NOLINTBEGIN(misc-definitions-in-headers): one source of a program includes this

extern "C" TIRVAL_API unsigned sleep(unsigned seconds)
{
    sleeps.push_back(seconds);
    return 0;
}

/* Stands before the host's own, which releases the error. */
extern "C" TIRVAL_API void tirval_gridftp_server_finished_command(tirval_gfs_operation_t op,
                                                                  tirval_result_t result,
                                                                  const char *response)
{
    answered_place = place_of(result);
    next_definition<decltype(tirval_gridftp_server_finished_command)>(
        "tirval_gridftp_server_finished_command")(op, result, response);
}

// NOLINTEND(misc-definitions-in-headers)

/* Something that a service does wrong, and what becomes of a request because of it. */
struct fault {
    std::string name;
    http_peer_answer answer;
    int attempts = 1; /* of a request that may be sent twice */
    int code = 0;     /* of the FTP reply; 0: the error is none */
    std::string tag;
    std::string text;  /* a part of the error's text */
    bool done = false; /* counts as success where no answer's body is needed */
};

inline void PrintTo(const fault &row, std::ostream *out)
{
    *out << row.name;
}
inline std::string fault_name(const testing::TestParamInfo<fault> &info)
{
    return info.param.name;
}

inline http_peer_answer cut_off(const std::string &bytes)
{
    return http_peer_answer().send(bytes).pause(std::chrono::milliseconds(20)).reset();
}

/* Lost requests, and error statuses: alike for every request whose error has no body. */
inline std::vector<fault> common_faults()
{
    const http_peer_headers at_once = {{"Retry-After", "0"}};
    const auto status = [](int code, const http_peer_headers &headers = {}) {
        return http_peer_answer::complete(code, "", headers);
    };
    return {
        {"ResetBeforeAnyHeader", http_peer_answer().reset(), 2, 0, "", "failed\n", false},
        {"ResetWithinTheHeaders", cut_off("HTTP/1.1 200 OK\r\nContent-Le"), 2, 0, "", "failed\n",
         false},
        {"ClosedWithoutAnAnswer", http_peer_answer().close(), 2, 0, "", "failed\n", false},
        {"NotHttp", http_peer_answer().send("gibberish\r\n\r\n").close(), 1, 0, "", "HTTP", false},
        {"Stalled", http_peer_answer().await_close(), 2, 0, "",
         "the service has moved no data for too long", false},
        {"BadRequest", status(400), 1, 0, "", "Bad OneDrive request", false},
        {"Unauthorized", status(401), 1, 550, "PERMISSION_DENIED", "", false},
        {"Forbidden", status(403), 1, 550, "PERMISSION_DENIED", "", false},
        {"NotFound", status(404), 1, 550, "PATH_NOT_FOUND", "", false},
        {"Conflict", status(409), 1, 553, "PATH_EXISTS", "", false},
        {"Gone", status(410), 1, 0, "", "System error in malloc", true},
        {"PreconditionFailed", status(412), 1, 0, "", "System error in malloc", true},
        {"Locked", status(423), 1, 0, "", "System error in malloc", true},
        {"Throttled", status(429), 2, 451, "TOO_BUSY", "", false},
        {"ThrottledForAWhile", status(429, at_once), 2, 451, "TOO_BUSY", "", false},
        {"InternalError", status(500), 1, 500, "INTERNAL_ERROR", "", false},
        {"Unavailable", status(503), 1, 500, "INTERNAL_ERROR", "", false},
        {"UnavailableForAWhile", status(503, at_once), 2, 500, "INTERNAL_ERROR", "", false},
        {"InsufficientStorage", status(507), 1, 500, "INTERNAL_ERROR", "", false},
    };
}

/* The same, and what can be wrong with the JSON of an answer that needs one. */
inline std::vector<fault> json_faults()
{
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n";
    std::vector<fault> all = common_faults();
    const std::vector<fault> more = {
        {"ResetBehindTheHeaders", cut_off(head), 2, 0, "", "failed\n", false},
        {"ResetWithinTheBody", cut_off(head + R"({"name":)"), 2, 0, "", "failed\n", false},
        {"BodyEndsEarly", http_peer_answer().send(head + R"({"name":)").close(), 2, 0, "",
         "broke off", false},
        {"NoBody", http_peer_answer::complete(200), 1, 0, "", "System error in malloc", false},
        {"NoContent", http_peer_answer::complete(204), 1, 0, "", "System error in malloc", false},
        {"TruncatedJson", http_peer_answer::json(200, R"({"name":"d","id":)"), 1, 0, "",
         "System error in malloc", false},
        {"MalformedJson", http_peer_answer::json(200, "<html>"), 1, 0, "", "System error in malloc",
         false},
        {"UnknownErrorCode",
         http_peer_answer::json(409, R"({"error":{"code":"nameAlreadyExists","message":"taken"}})"),
         1, 0, "", "code: \"nameAlreadyExists\"\nmessage: \"taken\"", false},
        {"ThrottledWithJson",
         http_peer_answer::json(429, R"({"error":{"code":"tooManyRequests","message":"slow"}})",
                                {{"Retry-After", "0"}}),
         2, 0, "", "code: \"tooManyRequests\"", false},
        {"LockedWithJson",
         http_peer_answer::json(423, R"({"error":{"code":"resourceLocked","message":"open"}})"), 1,
         0, "", "code: \"resourceLocked\"", false},
    };
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

/* Those that a request is sent again for. */
inline std::vector<fault> repeated(const std::vector<fault> &all)
{
    std::vector<fault> some;
    for (const fault &row : all) {
        if (row.attempts == 2) {
            some.push_back(row);
        }
    }
    return some;
}

/* A session with the entries of commands and stats. */
class command_test : public testing::Test {
  protected:
    command_test() : session(peer.url("")), host(&iface())
    {
        host.session = session.handle();
        session.mark_listed("/My files");
        sleeps.clear();
    }
    ~command_test() override
    {
        tirval_i_onedrive_progress_timeout_ms = 30000;
        EXPECT_EQ(peer.unexpected(), 0U);
        EXPECT_EQ(peer.unused(), 0U);
    }

    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.command_func = tirval_i_onedrive_command;
        table.stat_func = tirval_i_onedrive_stat;
        return table;
    }

    /* The service does wrong so often; a stalled one is soon given up. */
    void script(const fault &row, int times)
    {
        if (row.name == "Stalled") {
            tirval_i_onedrive_progress_timeout_ms = 400;
        }
        for (int i = 0; i < times; ++i) {
            peer.answer(row.answer);
        }
    }
    void expect_failure(const fault &row) const
    {
        EXPECT_FALSE(host.answer.success());
        EXPECT_EQ(host.answers, 1);
        EXPECT_EQ(host.answer.code, row.code) << host.answer.text;
        EXPECT_EQ(host.answer.tag, row.tag);
        EXPECT_THAT(host.answer.text, testing::HasSubstr(row.text));
    }
    bool is_cached(const std::string &path) const { return session.cached(path) != nullptr; }
    /* The requests with that method. */
    std::vector<http_peer_request> requests(const std::string &method) const
    {
        std::vector<http_peer_request> some;
        for (const auto &request : peer.requests()) {
            if (request.method == method) {
                some.push_back(request);
            }
        }
        return some;
    }

    http_peer peer;
    test_session session;
    memory_backend host;
};

#endif
