/*
 * A session into which files are stored: a scripted Graph service, the place where the parts of
 * large files go, and a client.  Sleeps and library calls go through seams, so one source of a
 * program includes this.
 */
#ifndef TIRVAL_TESTS_STORE_FIXTURE_H
#define TIRVAL_TESTS_STORE_FIXTURE_H

#include "graph_script.h"
#include "library_seams.h"
#include "memory_backend.h"
#include "refusing_port.h"
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

inline std::vector<unsigned> slept; /* seconds; they are not really slept */

// NOLINTNEXTLINE(misc-definitions-in-headers): one source of a program includes this
extern "C" TIRVAL_API unsigned sleep(unsigned seconds)
{
    slept.push_back(seconds);
    return 0;
}

constexpr std::size_t simple_limit = 4194304;
constexpr std::size_t part_size = 10485760;

/* Content in which no two stretches of a few bytes are alike. */
inline std::string content_of(std::size_t length)
{
    std::string bytes(length, '\0');
    uint64_t state = 1;
    for (char &byte : bytes) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}

/* What a Content-Range header of a request says. */
struct sent_range {
    std::size_t first = 0;
    std::size_t last = 0;
    std::size_t total = 0;
};

inline sent_range range_of(const http_peer_request &request)
{
    sent_range range;
    const std::string text = request.header("Content-Range").value_or("");
    EXPECT_EQ(
        std::sscanf(text.c_str(), "bytes %zu-%zu/%zu", &range.first, &range.last, &range.total), 3)
        << text;
    return range;
}

class StoreFixture : public testing::Test {
  protected:
    static constexpr const char *path = "/My files/a.bin";

    StoreFixture() : session(service.url("")), host(&iface())
    {
        slept.clear();
        host.session = session.handle();
        session.mark_listed("/My files");
        parts.on_request([](const http_peer_request &request) { return part_stored(request); });
    }
    ~StoreFixture() override
    {
        tirval_gfs_cancel_clear();
        tirval_i_onedrive_progress_timeout_ms = 30000;
        failing_text = 0;
        table_insert_fails = false;
        EXPECT_EQ(service.unexpected(), 0U);
    }

    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.recv_func = tirval_i_onedrive_recv;
        return table;
    }

    /* ---- What the service answers ---- */

    static http_peer_answer stored(int status = 201)
    {
        return http_peer_answer::json(status, graph::file("a.bin", "id-stored"));
    }
    static http_peer_answer session_state()
    {
        return http_peer_answer::json(
            202, R"({"expirationDateTime":"2031-01-29T09:21:55Z","nextExpectedRanges":["1-"]})");
    }
    static http_peer_answer part_stored(const http_peer_request &request)
    {
        const sent_range range = range_of(request);
        return range.last + 1 == range.total ? stored() : session_state();
    }
    http_peer_answer session_made() const
    {
        return http_peer_answer::json(200, R"({"uploadUrl":")" + parts.url("/up?tempauth=x%20y") +
                                               R"(","expirationDateTime":"2031-01-29T09:21:55Z"})");
    }

    /* ---- Stores ---- */

    bool store(const std::string &content)
    {
        host.upload = content;
        return host.recv(path);
    }
    /* Goes on with an interrupted store at `offset`; the client sends the rest. */
    bool go_on(const std::string &content, std::size_t offset)
    {
        host.upload = content.substr(offset);
        host.write_range = {static_cast<tirval_off_t>(offset), -1};
        return host.recv(path, static_cast<tirval_off_t>(content.size()), false);
    }
    /* The client's data is all there, but not its end: that is what the probe has to wait for. */
    void hold_the_end_back(std::size_t announced) { host.unhurried = announced; }

    /* ---- What came of it ---- */

    tirval_onedrive_upload_session_t *record(const std::string &of = path) const
    {
        return tirval_onedrive_upload_state_query(&session.handle()->upload_state, of.c_str());
    }
    /* Enters the record of an upload session whose parts are small. */
    tirval_onedrive_upload_session_t *enter_record(std::size_t part, std::size_t total,
                                                   const std::string &url)
    {
        auto *upload = static_cast<tirval_onedrive_upload_session_t *>(
            std::calloc(1, sizeof(tirval_onedrive_upload_session_t)));
        upload->url = strdup(url.c_str());
        upload->exp = strdup("2031-01-29T09:21:55Z");
        upload->name = strdup(path);
        upload->num_parts = static_cast<int32_t>((total + part - 1) / part);
        upload->part_size = part;
        upload->total_size = total;
        upload->part_array = json_array();
        EXPECT_EQ(tirval_onedrive_upload_state_update(&session.handle()->upload_state, upload,
                                                      upload->name),
                  TIRVAL_SUCCESS);
        return upload;
    }
    /* Runs the upload through the path's record, whatever the file's size. */
    bool store_through_record(const std::string &content)
    {
        host.upload = content;
        host.in_recv(
            [this](tirval_gfs_operation_t op) {
                tirval_gfs_transfer_info_t info = {
                    path, static_cast<tirval_off_t>(host.upload.size()), false};
                tirval_gridftp_server_finished_transfer(
                    op, tirval_i_onedrive_recv_chunked(op, &info, session.handle(),
                                                       session.cached("/My files")));
            },
            static_cast<tirval_off_t>(content.size()));
        return host.answer.success();
    }

    void expect_refused_before_the_begin(int code, const std::string &tag)
    {
        EXPECT_EQ(host.answer.code, code) << host.answer.text;
        EXPECT_EQ(host.answer.tag, tag);
        EXPECT_EQ(host.answers, 1);
        EXPECT_EQ(host.begins, 0);
        EXPECT_EQ(host.received, 0U);
    }
    void expect_malloc_error() const
    {
        EXPECT_THAT(host.answer.text, testing::StartsWith("System error in malloc"));
        EXPECT_EQ(host.answer.code, 0);
    }
    void expect_generic_error(const std::string &text) const
    {
        EXPECT_EQ(host.answer.type, TIRVAL_ERROR_TYPE_SERVICE_ANSWER) << host.answer.text;
        EXPECT_EQ(host.answer.text, text);
    }

    http_peer service;
    http_peer parts; /* where the parts go; answers as the service does */
    test_session session;
    memory_backend host;
};

#endif
