/*
 * The receiving side of data connections, over real sockets.
 */
#include "data_receiver.h"

#include "ftp_client.h"

#include "tirval_gridftp_server.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tirval::server {
namespace {

using std::chrono::milliseconds;

/* What a registered read was completed with. */
struct completion_t {
    void wait()
    {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [&] { return count > 0; });
    }

    std::mutex lock;
    std::condition_variable changed;
    int count = 0;
    int code = 0; /* of the failure; 0: success */
    std::size_t bytes = 0;
    std::int64_t offset = -1;
    std::thread::id thread;
};

void note_completion(void *done_arg, tirval_result_t result, tirval_size_t nbytes,
                     tirval_off_t offset)
{
    auto &completion = *static_cast<completion_t *>(done_arg);
    const std::lock_guard<std::mutex> guard(completion.lock);
    ++completion.count;
    completion.bytes = nbytes;
    completion.offset = offset;
    completion.thread = std::this_thread::get_id();
    if (result != TIRVAL_SUCCESS) {
        tirval_gfs_ftp_response_error_get(tirval_error_peek(result), &completion.code, nullptr,
                                          nullptr);
    }
    completion.changed.notify_all();
}

class DataReceiver : public ::testing::Test {
  protected:
    DataReceiver() { tirval_gfs_cancel_clear(); }
    ~DataReceiver() override
    {
        receiver.reset();
        tirval_gfs_cancel_clear();
    }

    void open()
    {
        const auto here = *socket_address_t::parse(AF_INET, "127.0.0.1", 0);
        auto endpoint = listen_for_data(here, here, std::nullopt);
        client = tests::ftp_client_t::connect_data(endpoint->port);
        options.open_timeout = milliseconds(5000);
        receiver = std::make_unique<data_receiver_t>(std::move(endpoint), options, moved);
        ASSERT_FALSE(receiver->open());
    }

    void send(std::string_view bytes) const
    {
        ASSERT_EQ(::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    void end() { client.reset(); }

    /* Closes the connection out of order. */
    void reset_connection()
    {
        const linger at_once{1, 0};
        setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        client.reset();
    }

    /* The next bytes; empty at the end. */
    std::string next(std::size_t most)
    {
        std::string buffer(most, '\0');
        std::size_t received = 0;
        bool would_block = true;
        EXPECT_FALSE(receiver->receive(buffer, true, received, would_block));
        EXPECT_FALSE(would_block);
        buffer.resize(received);
        return buffer;
    }

    std::string rest(std::size_t block)
    {
        std::string all;
        for (std::string piece = next(block); !piece.empty(); piece = next(block)) {
            all += piece;
        }
        return all;
    }

    /* What a receive() fails with. */
    int failure_code()
    {
        std::string buffer(100, '\0');
        std::size_t received = 1;
        bool would_block = true;
        const auto failure = receiver->receive(buffer, true, received, would_block);
        EXPECT_EQ(received, 0U);
        return failure ? failure->code : 0;
    }

    data_receiver_t::options_t options;
    std::atomic<std::uint64_t> moved{0};
    unique_fd_t client;
    std::unique_ptr<data_receiver_t> receiver;
};

TEST_F(DataReceiver, BringsTheBytesInOrderUntilTheClientCloses)
{
    open();
    send("hello ");
    EXPECT_EQ(next(100), "hello ");
    send("world");
    end();
    EXPECT_EQ(rest(2), "world");
    EXPECT_EQ(next(100), "");
    EXPECT_EQ(moved, 11U);
    EXPECT_EQ(receiver->delivered(), 11);
    EXPECT_FALSE(receiver->failure());
}

TEST_F(DataReceiver, WithoutWaitingTellsThatThereIsNothing)
{
    open();
    std::string buffer(10, '\0');
    std::size_t received = 1;
    bool would_block = false;
    EXPECT_FALSE(receiver->receive(buffer, false, received, would_block));
    EXPECT_TRUE(would_block);
    EXPECT_EQ(received, 0U);
    send("x");
    pollfd polled{receiver->descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&polled, 1, 5000), 1);
    EXPECT_FALSE(receiver->receive(buffer, false, received, would_block));
    EXPECT_FALSE(would_block);
    EXPECT_EQ(received, 1U);
}

TEST_F(DataReceiver, AResetIsNoEndOfData)
{
    open();
    send("some");
    EXPECT_EQ(next(100), "some");
    reset_connection();
    EXPECT_EQ(failure_code(), 426);
    ASSERT_TRUE(receiver->failure());
    EXPECT_EQ(receiver->failure()->code, 426);
}

TEST_F(DataReceiver, AResetBeforeTheConnectionIsTakenIsFoundAtOnce)
{
    const auto here = *socket_address_t::parse(AF_INET, "127.0.0.1", 0);
    auto endpoint = listen_for_data(here, here, std::nullopt);
    client = tests::ftp_client_t::connect_data(endpoint->port);
    send("some");
    reset_connection();
    options.open_timeout = milliseconds(1000);
    receiver = std::make_unique<data_receiver_t>(std::move(endpoint), options, moved);
    ASSERT_FALSE(receiver->open()) << "waits for another connection";
    std::string buffer(100, '\0');
    std::size_t received = 0;
    bool would_block = false;
    std::optional<failure_t> failure;
    do {
        failure = receiver->receive(buffer, true, received, would_block);
    } while (!failure && received > 0);
    ASSERT_TRUE(failure) << "takes it for the end of data";
    EXPECT_EQ(failure->code, 426);
}

TEST_F(DataReceiver, ASilentClientIsGivenUp)
{
    options.stall_timeout = milliseconds(50);
    open();
    send("x");
    EXPECT_EQ(next(100), "x");
    EXPECT_EQ(failure_code(), 426);
}

TEST_F(DataReceiver, ACancelEndsTheWait)
{
    open();
    std::thread canceller([] {
        std::this_thread::sleep_for(milliseconds(30));
        tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    });
    EXPECT_EQ(failure_code(), 426);
    canceller.join();
}

TEST_F(DataReceiver, ACancelStopsAClientThatSendsWithoutEnd)
{
    open();
    send(std::string(1000, 'x'));
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_ABORT);
    EXPECT_EQ(failure_code(), 426);
}

TEST_F(DataReceiver, AConnectionThatNobodyMakesIs425)
{
    const auto here = *socket_address_t::parse(AF_INET, "127.0.0.1", 0);
    options.open_timeout = milliseconds(50);
    receiver = std::make_unique<data_receiver_t>(listen_for_data(here, here, std::nullopt), options,
                                                 moved);
    const auto failure = receiver->open();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, 425);
    EXPECT_EQ(receiver->descriptor(), -1);
}

/* ---- TYPE A -------------------------------------------------------------------------------- */

TEST_F(DataReceiver, AsciiTurnsCrLfIntoLfAndKeepsOtherCrs)
{
    for (const std::size_t block : {std::size_t{1}, std::size_t{2}, std::size_t{1000}}) {
        options.ascii = true;
        open();
        send("one\r\ntwo\rthree\r\r\n\r\r\nfour\n\r");
        end();
        EXPECT_EQ(rest(block), "one\ntwo\rthree\r\n\r\nfour\n\r") << block;
    }
}

TEST_F(DataReceiver, ACrAtTheEndOfABlockWaitsForItsLf)
{
    options.ascii = true;
    open();
    send("a\r");
    EXPECT_EQ(next(100), "a");
    std::string buffer(10, '\0');
    std::size_t received = 1;
    bool would_block = false;
    EXPECT_FALSE(receiver->receive(buffer, false, received, would_block));
    EXPECT_TRUE(would_block);
    send("\nb\r");
    EXPECT_EQ(next(100), "\nb");
    send("c");
    EXPECT_EQ(next(100), "\rc");
    send("\r");
    end();
    EXPECT_EQ(rest(100), "\r");
    EXPECT_EQ(moved, 7U);
    EXPECT_EQ(receiver->delivered(), 6);
}

TEST_F(DataReceiver, AsciiConvertsAcrossManyBlocks)
{
    options.ascii = true;
    open();
    std::string raw;
    std::string expected;
    for (int n = 0; n < 40'000; ++n) {
        const std::string word(static_cast<std::size_t>(n % 7), 'w');
        raw += word + "\r\n";
        expected += word + "\n";
    }
    std::thread sender([&] {
        std::string_view left = raw;
        while (!left.empty()) {
            const ssize_t sent = ::send(client.get(), left.data(), left.size(), MSG_NOSIGNAL);
            ASSERT_GT(sent, 0);
            left.remove_prefix(static_cast<std::size_t>(sent));
        }
        client.reset();
    });
    const std::string got = rest(9999);
    sender.join();
    EXPECT_TRUE(got == expected);
}

/* ---- Registered reads ---------------------------------------------------------------------- */

TEST_F(DataReceiver, ARegisteredReadIsCompletedOnceOnAnotherThread)
{
    open();
    send("abc");
    EXPECT_EQ(next(2), "ab");
    completion_t completion;
    char scratch[5] = {};
    ASSERT_FALSE(receiver->register_read(scratch, note_completion, &completion));
    completion.wait();
    EXPECT_EQ(completion.bytes, 1U);
    EXPECT_EQ(scratch[0], 'c');
    EXPECT_EQ(completion.offset, 2);
    EXPECT_EQ(completion.code, 0);
    EXPECT_NE(completion.thread, std::this_thread::get_id());
    receiver.reset();
    EXPECT_EQ(completion.count, 1);
}

TEST_F(DataReceiver, ARegisteredReadFindsTheEndWheneverItComes)
{
    open();
    completion_t completion;
    char scratch = 'x';
    ASSERT_FALSE(receiver->register_read({&scratch, 1}, note_completion, &completion));
    std::this_thread::sleep_for(milliseconds(20));
    end();
    completion.wait();
    EXPECT_EQ(completion.bytes, 0U);
    EXPECT_EQ(completion.code, 0);
    EXPECT_EQ(next(10), "");
}

TEST_F(DataReceiver, ARegisteredReadIsCompletedWhenTheOperationIsCancelled)
{
    open();
    completion_t completion;
    char scratch = 'x';
    ASSERT_FALSE(receiver->register_read({&scratch, 1}, note_completion, &completion));
    tirval_gfs_cancel(TIRVAL_GFS_CANCEL_LOST);
    completion.wait();
    EXPECT_EQ(completion.code, 426);
    EXPECT_EQ(completion.bytes, 0U);
    receiver.reset();
    EXPECT_EQ(completion.count, 1);
}

TEST_F(DataReceiver, ARegisteredReadIsCompletedWhenTheClientIsSilent)
{
    options.stall_timeout = milliseconds(50);
    open();
    completion_t completion;
    char scratch = 'x';
    ASSERT_FALSE(receiver->register_read({&scratch, 1}, note_completion, &completion));
    completion.wait();
    EXPECT_EQ(completion.code, 426);
    receiver.reset();
    EXPECT_EQ(completion.count, 1);
}

TEST_F(DataReceiver, ARegisteredReadIsCompletedWhenTheConnectionBreaks)
{
    open();
    completion_t completion;
    char scratch = 'x';
    ASSERT_FALSE(receiver->register_read({&scratch, 1}, note_completion, &completion));
    reset_connection();
    completion.wait();
    EXPECT_EQ(completion.code, 426);
    ASSERT_TRUE(receiver->failure());
    EXPECT_EQ(receiver->failure()->code, 426);
}

} // namespace
} // namespace tirval::server
