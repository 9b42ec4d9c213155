// The look for data beyond what the client announced, as small and large files have it.
#include "store_fixture.h"

#include <thread>

/* How the host completes the next registered read, in place of what the client does. */
struct scripted_completion {
    tirval_size_t nbytes;
    bool eof;
};
static std::optional<scripted_completion> completion;
static std::thread completing;

extern "C" TIRVAL_API tirval_result_t tirval_gridftp_server_register_read(
    tirval_gfs_operation_t op, tirval_byte_t *buffer, tirval_size_t length,
    tirval_gridftp_server_read_cb_t callback, void *user_arg)
{
    EXPECT_EQ(length, 1U);
    if (completion) {
        completing = std::thread([=, how = *completion] {
            callback(op, TIRVAL_SUCCESS, buffer, how.nbytes, 0, how.eof, user_arg);
        });
        return TIRVAL_SUCCESS;
    }
    return next_definition<decltype(tirval_gridftp_server_register_read)>(
        "tirval_gridftp_server_register_read")(op, buffer, length, callback, user_arg);
}

namespace {

using testing::HasSubstr;

enum class way { simple, parts };

/* The same client with the same file, whichever way the file goes. */
class RecvProbe : public StoreFixture, public testing::WithParamInterface<way> {
  protected:
    static constexpr std::size_t size = 2500;

    RecvProbe() { completion.reset(); }
    ~RecvProbe() override
    {
        if (completing.joinable()) {
            completing.join();
        }
    }
    bool in_parts() const { return GetParam() == way::parts; }

    /* Stores what the client sends as a file of `size` bytes.  Returns the plug-in's own
     * result as a success. */
    bool store_file(const std::string &sent)
    {
        if (in_parts()) {
            enter_record(1000, size, parts.url("/up"));
        } else {
            service.answer(stored());
            if (host.modification_time != -1) {
                service.answer(stored(200));
            }
        }
        host.upload = sent;
        bool success = false;
        host.in_recv(
            [&](tirval_gfs_operation_t op) {
                tirval_gfs_transfer_info_t info = {path, size, false};
                auto *parent = session.cached("/My files");
                const tirval_result_t result =
                    in_parts() ? tirval_i_onedrive_recv_chunked(op, &info, session.handle(), parent)
                               : tirval_i_onedrive_recv_simple(op, &info, session.handle(), parent);
                success = result == TIRVAL_SUCCESS;
                tirval_gridftp_server_finished_transfer(op, result);
            },
            size);
        return success;
    }
    /* What the service has got of the file. */
    std::string arrived() const
    {
        std::string all;
        for (const auto &request : (in_parts() ? parts : service).requests()) {
            all += request.method == "PUT" ? request.body : "";
        }
        return all;
    }
    void expect_too_much() const
    {
        EXPECT_EQ(host.answer.code, 451) << host.answer.text;
        EXPECT_EQ(host.answer.tag, "QUOTA_EXCEEDED");
        EXPECT_EQ(host.answer.message, "");
        EXPECT_THAT(host.answer.text, HasSubstr("OneDrive-Error: \"Too much data was sent.\""));
        EXPECT_THAT(host.answer.text, testing::Not(HasSubstr("OneDrive-Path")));
        EXPECT_EQ(host.answers, 1);
    }
    const std::string content = content_of(size);
};

std::string way_name(const testing::TestParamInfo<way> &chosen)
{
    return chosen.param == way::simple ? "simple" : "parts";
}

INSTANTIATE_TEST_SUITE_P(Ways, RecvProbe, testing::Values(way::simple, way::parts), way_name);

TEST_P(RecvProbe, AnEndThatComesAtOnceIsSuccess)
{
    hold_the_end_back(size);
    EXPECT_TRUE(store_file(content));
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_EQ(host.reads_registered, 1);
    EXPECT_TRUE(arrived() == content);
}

TEST_P(RecvProbe, AnEndThatComesLateIsWaitedFor)
{
    hold_the_end_back(size);
    host.reads = memory_read::late;
    EXPECT_TRUE(store_file(content));
    EXPECT_TRUE(host.answer.success()) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
}

TEST_P(RecvProbe, AnEndThatWasSeenWithTheContentIsNotLookedForAgain)
{
    /* The answer is late enough for the client's end to be received meanwhile. */
    const std::string item = graph::file("a.bin");
    const auto late =
        http_peer_answer()
            .pause(std::chrono::milliseconds(300))
            .send("HTTP/1.1 201 Created\r\nContent-Length: " + std::to_string(item.size()) +
                  "\r\n\r\n" + item);
    service.on_request([&](const auto &) { return late; });
    parts.on_request([&](const http_peer_request &request) {
        return range_of(request).last + 1 == size ? late : session_state();
    });
    completion = {{1, false}}; // what a look would find: too much data
    host.upload = content;
    if (in_parts()) {
        enter_record(1000, size, parts.url("/up"));
        EXPECT_TRUE(store_through_record(content)) << host.answer.text;
    } else {
        EXPECT_TRUE(store(content)) << host.answer.text;
    }
    EXPECT_FALSE(completing.joinable()) << "no read was registered";
}

TEST_P(RecvProbe, SurplusDataFailsTheStoreAfterTheContentIsStored)
{
    for (const std::size_t surplus : {1U, 2U, 5000U}) {
        EXPECT_FALSE(store_file(content + std::string(surplus, '+')));
        expect_too_much();
        EXPECT_NE(session.cached(path), nullptr);
        if (in_parts()) {
            EXPECT_NE(record(), nullptr) << "the store did not complete";
            tirval_onedrive_upload_state_remove(&session.handle()->upload_state, path);
        }
        EXPECT_TRUE(arrived().ends_with(content));
    }
}

TEST_P(RecvProbe, SurplusDataThatComesLateFailsTheStoreToo)
{
    hold_the_end_back(size);
    host.reads = memory_read::late;
    EXPECT_FALSE(store_file(content + "+"));
    expect_too_much();
}

TEST_P(RecvProbe, AClientThatIsLostWhileItsEndIsAwaitedFailsTheStore)
{
    hold_the_end_back(size);
    host.reads = memory_read::fails;
    EXPECT_FALSE(store_file(content));
    EXPECT_EQ(host.answer.code, 426) << host.answer.text;
    EXPECT_EQ(host.answer.tag, "CONNECTION_BROKEN");
    EXPECT_EQ(host.answers, 1);
}

TEST_P(RecvProbe, AnAbortEndsTheWait)
{
    hold_the_end_back(size);
    host.reads = memory_read::on_cancel;
    host.on_register = [] { tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER); };
    EXPECT_FALSE(store_file(content));
    EXPECT_EQ(host.answer.type, TIRVAL_ERROR_TYPE_CANCELLED) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(host.reads_registered, 1);
}

TEST_P(RecvProbe, AnAbortThatComesLaterEndsTheWait)
{
    hold_the_end_back(size);
    host.upload_ends = false;
    std::thread aborter;
    host.on_register = [&] {
        aborter = std::thread([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            tirval_gfs_cancel(TIRVAL_GFS_CANCEL_TRANSFER);
        });
    };
    EXPECT_FALSE(store_file(content));
    aborter.join();
    EXPECT_EQ(host.answer.type, TIRVAL_ERROR_TYPE_CANCELLED) << host.answer.text;
}

TEST_P(RecvProbe, ARefusedLookIsSuccessForThePlugInAndTheHostKnowsBetter)
{
    hold_the_end_back(size);
    host.reads = memory_read::refused;
    debug_trace trace;
    EXPECT_TRUE(store_file(content));
    EXPECT_EQ(trace.count("tirval_l_eof_read_cb"), 0U);
    EXPECT_EQ(host.answer.code, 426);
    EXPECT_EQ(host.answers, 1);
}

TEST_P(RecvProbe, OnlyTheEndCountsAndNotTheBytes)
{
    completion = {{1, true}};
    hold_the_end_back(size);
    EXPECT_TRUE(store_file(content)) << "an end, whatever came with it";
    completing.join();
    completion = {{0, false}};
    EXPECT_FALSE(store_file(content)) << "no end, though nothing came";
    expect_too_much();
}

TEST_P(RecvProbe, ItsLinesGoToTheDebugChannel)
{
    hold_the_end_back(size);
    debug_trace trace;
    EXPECT_TRUE(store_file(content));
    EXPECT_EQ(trace.count("tirval_l_eof_read_cb: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_l_eof_read_cb: exit\n"), 1U);
}

/* ---- What only small files have ---- */

class RecvSimpleProbe : public StoreFixture {};

TEST_F(RecvSimpleProbe, TheTimeIsSetBeforeTheLook)
{
    completion.reset();
    host.modification_time = 0;
    service.answer(stored());
    service.answer(stored(200));
    host.upload = "data+";
    EXPECT_FALSE(host.recv(path, 4));
    EXPECT_EQ(host.answer.tag, "QUOTA_EXCEEDED");
    ASSERT_EQ(service.requests().size(), 2U);
    EXPECT_EQ(service.requests().at(0).body, "data");
    EXPECT_EQ(service.requests().at(1).method, "PATCH");
}

TEST_F(RecvSimpleProbe, AnEmptyFileIsLookedBehindToo)
{
    completion.reset();
    service.answer(stored());
    host.upload = "x";
    EXPECT_FALSE(host.recv(path, 0));
    EXPECT_EQ(host.answer.tag, "QUOTA_EXCEEDED");
    EXPECT_EQ(service.requests().at(0).body, "");
}

TEST_F(RecvSimpleProbe, AByteBehindTheLargestSmallFileFailsTheStoreAndTheProcessLives)
{
    completion.reset();
    service.answer(stored());
    const std::string content = content_of(simple_limit);
    host.upload = content + "+";
    EXPECT_FALSE(host.recv(path, static_cast<tirval_off_t>(simple_limit)));
    EXPECT_EQ(host.answer.tag, "QUOTA_EXCEEDED");
    EXPECT_TRUE(service.requests().at(0).body == content);
}

} // namespace
