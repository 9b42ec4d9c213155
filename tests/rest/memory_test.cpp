// Pins that bodies of any size, wanted or not, pass in a constant amount of memory.
#include "rest_fixture.h"

#include <fstream>
#include <gmock/gmock.h>

namespace {

constexpr size_t mebibyte = 1024UL * 1024;

/* The most memory that this process has had resident, in bytes. */
size_t peak_memory()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kibibytes = 0;
    while (status >> word) {
        if (word == "VmHWM:") {
            status >> kibibytes;
        }
    }
    return kibibytes * 1024;
}

tirval_result_t count(void *counter, void * /*buffer*/, size_t length)
{
    *static_cast<size_t *>(counter) += length;
    return TIRVAL_SUCCESS;
}

tirval_result_t fill(void * /*arg*/, void *buffer, size_t length, size_t *copied)
{
    std::fill_n(static_cast<char *>(buffer), length, 'f');
    *copied = length;
    return TIRVAL_SUCCESS;
}

} // namespace

class RestMemory : public rest_test {
  protected:
    RestMemory()
    {
        // What is allocated once should not be counted.
        peer.answer(http_peer_answer::complete(200, std::string(mebibyte, 'w')));
        EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
        before = peak_memory();
    }
    size_t growth() const { return peak_memory() - before; }

    http_peer peer;
    size_t before = 0;
};

TEST_F(RestMemory, ADownloadOf256MebibytesTakesNone)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nContent-Length: 268435456\r\n\r\n")
                    .repeat(std::string(mebibyte, 'd'), 256));
    size_t received = 0;
    rest_call call("GET", peer.url());
    call.callbacks.data_read_callback = count;
    call.callbacks.data_read_callback_arg = &received;
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(received, 256 * mebibyte);
    EXPECT_LT(growth(), 24 * mebibyte);
}

TEST_F(RestMemory, AnUploadOf256MebibytesTakesNone)
{
    peer.answer(http_peer_answer::complete(200).drop_body());
    rest_call call("PUT", peer.url());
    call.headers = {{"Content-Length", "268435456"}};
    call.callbacks.data_write_callback = fill;
    EXPECT_TRUE(call.send().ok());
    EXPECT_EQ(peer.requests().back().body_size, 256 * mebibyte);
    EXPECT_LT(growth(), 24 * mebibyte);
}

TEST_F(RestMemory, AnEndlessHeaderTakesNone)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 x\r\n").repeat("A: b\r\n", 100000000));
    EXPECT_FALSE(rest_call("GET", peer.url()).send().ok());
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nA: ")
                    .repeat(std::string(mebibyte, 'b'), 100000));
    EXPECT_FALSE(rest_call("GET", peer.url()).send().ok());
    EXPECT_LT(growth(), 24 * mebibyte);
}

TEST_F(RestMemory, EndlessJsonTakesAFewTimesItsLimit)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n[\r\n")
                    .repeat("100000\r\n" + std::string(mebibyte, ' ') + "\r\n", 100000));
    rest_call call("GET", peer.url());
    json_answer body;
    body.attach(call);
    EXPECT_FALSE(call.send().ok());
    EXPECT_LT(growth(), 64 * mebibyte);
}
