// Pins which answers' bodies reach which callback, and within which bounds.
#include "rest_fixture.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

class RestBodyRouting : public rest_test {
  protected:
    /* One GET with a callback of the test's own. */
    rest_outcome get(const rest_pairs &headers = {})
    {
        rest_call call("GET", peer.url());
        call.headers = headers;
        content.bytes.clear();
        content.attach(call);
        return call.send();
    }
    rest_outcome get_json()
    {
        rest_call call("GET", peer.url());
        json_decref(body.json);
        body.attach(call);
        return call.send();
    }

    http_peer peer;
    collected_body content;
    json_answer body;
};

TEST_F(RestBodyRouting, GivesContentToACallbackOfTheCallers)
{
    const std::string text(700000, 'c');
    peer.answer(http_peer_answer::complete(200, text));
    EXPECT_TRUE(get().ok());
    EXPECT_TRUE(content.bytes == text);
}

TEST_F(RestBodyRouting, GivesNoErrorPageToAContentCallback)
{
    for (const int status : {400, 404, 405, 410, 416, 429, 500, 503}) {
        peer.answer(http_peer_answer::complete(status, "<html>error</html>"));
        EXPECT_TRUE(get().ok()) << status;
        EXPECT_EQ(content.bytes, "");
        EXPECT_EQ(tirval_dsi_rest_last_status(), status);
    }
    EXPECT_EQ(peer.connections(), 1U);
}

TEST_F(RestBodyRouting, FailsWhereARedirectTakesThePlaceOfContent)
{
    for (const int status : {301, 302, 304, 307}) {
        peer.answer(http_peer_answer().send("HTTP/1.1 " + std::to_string(status) +
                                            " x\r\nContent-Length: 0\r\n\r\n"));
        const auto outcome = get();
        EXPECT_FALSE(outcome.ok()) << status;
        EXPECT_FALSE(outcome.retryable);
        EXPECT_THAT(outcome.text, HasSubstr("redirect"));
        EXPECT_EQ(content.bytes, "");
    }
}

TEST_F(RestBodyRouting, DropsALongErrorPageAndItsConnection)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 503 x\r\nTransfer-Encoding: chunked\r\n\r\n")
                    .repeat("4000\r\n" + std::string(0x4000, 'e') + "\r\n", 1000000));
    EXPECT_TRUE(get().ok());
    EXPECT_EQ(content.bytes, "");
    EXPECT_EQ(tirval_dsi_rest_last_status(), 503);
    peer.answer(http_peer_answer::complete(200, "fine"));
    EXPECT_TRUE(get().ok());
    EXPECT_EQ(content.bytes, "fine");
    EXPECT_EQ(peer.connections(), 2U);
}

TEST_F(RestBodyRouting, DropsABodyThatNobodyTakes)
{
    peer.answer(http_peer_answer::complete(200, "unwanted"));
    peer.answer(http_peer_answer::complete(200));
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_TRUE(rest_call("GET", peer.url()).send().ok());
    EXPECT_EQ(peer.connections(), 1U);
}

TEST_F(RestBodyRouting, ChecksTheRangeThatTheRequestAskedFor)
{
    const rest_pairs range = {{"Range", "bytes=2-4"}};
    peer.answer(http_peer_answer::complete(206, "cde", {{"Content-Range", "bytes 2-4/9"}}));
    EXPECT_TRUE(get(range).ok());
    EXPECT_EQ(content.bytes, "cde");
    EXPECT_EQ(peer.requests().at(0).header("Range"), "bytes=2-4");

    peer.answer(http_peer_answer::complete(200, "abcdefghi"));
    auto outcome = get(range);
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_EQ(content.bytes, "");

    peer.answer(http_peer_answer::complete(206, "abc", {{"Content-Range", "bytes 0-2/9"}}));
    outcome = get(range);
    EXPECT_FALSE(outcome.ok());
    EXPECT_THAT(outcome.text, HasSubstr("bytes 0-2/9"));
    EXPECT_EQ(content.bytes, "");
}

TEST_F(RestBodyRouting, RefusesARangeThatItCannotCheck)
{
    EXPECT_FALSE(get({{"Range", "bytes=-5"}}).ok());
    EXPECT_FALSE(get({{"Range", "bytes=0-1,4-5"}}).ok());
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(RestBodyRouting, FailsOnContentBeyondTheRange)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 206 x\r\nContent-Range: bytes 2-4/9\r\n"
                                        "Transfer-Encoding: chunked\r\n\r\n"
                                        "4\r\ncdef\r\n0\r\n\r\n"));
    const auto outcome = get({{"Range", "bytes=2-4"}});
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_EQ(content.bytes, "");
}

TEST_F(RestBodyRouting, FailsOnContentThatEndsBeforeTheRange)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 206 x\r\nContent-Range: bytes 2-4/9\r\n"
                                        "Transfer-Encoding: chunked\r\n\r\n"
                                        "2\r\ncd\r\n0\r\n\r\n"));
    const auto outcome = get({{"Range", "bytes=2-4"}});
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable) << "two bytes were taken for good";
}

TEST_F(RestBodyRouting, FailsOnContentWhoseEndIsNotAnnounced)
{
    peer.answer(http_peer_answer().send("HTTP/1.1 200 x\r\n\r\npart").close());
    const auto outcome = get();
    EXPECT_FALSE(outcome.ok());
    EXPECT_EQ(content.bytes, "");
    EXPECT_THAT(outcome.text, HasSubstr("did not announce where its content ends"));
}

TEST_F(RestBodyRouting, ReadsJsonOfEachStatus)
{
    for (const int status : {200, 201, 302, 404, 503}) {
        peer.answer(http_peer_answer::json(status, R"({"status":)" + std::to_string(status) + "}"));
        EXPECT_TRUE(get_json().ok());
        EXPECT_EQ(json_integer_value(json_object_get(body.json, "status")), status);
    }
}

TEST_F(RestBodyRouting, LeavesNullForABodyThatIsNoJson)
{
    for (const auto *text : {"", "<html>503</html>", "{", "{\"a\":1}x", "\xff", "plain"}) {
        peer.answer(http_peer_answer::complete(503, text));
        EXPECT_TRUE(get_json().ok()) << text;
        EXPECT_EQ(body.json, nullptr) << text;
        EXPECT_EQ(tirval_dsi_rest_last_status(), 503);
    }
    peer.answer(http_peer_answer::complete(204));
    EXPECT_TRUE(get_json().ok());
    EXPECT_EQ(body.json, nullptr);
}

TEST_F(RestBodyRouting, ReadsJsonOfTheLargestSizeThatIsTaken)
{
    const size_t size = 8UL * 1024 * 1024;
    const std::string text = "[\"" + std::string(size - 4, 'x') + "\"]";
    peer.answer(http_peer_answer::json(200, text));
    EXPECT_TRUE(get_json().ok());
    EXPECT_EQ(json_array_size(body.json), 1U);
    peer.answer(http_peer_answer::json(200, text + " "));
    const auto outcome = get_json();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("too large"));
    EXPECT_EQ(body.json, nullptr);
}

TEST_F(RestBodyRouting, EndsAnEndlessJsonBody)
{
    peer.answer(http_peer_answer()
                    .send("HTTP/1.1 200 x\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n[\r\n")
                    .repeat("4000\r\n" + std::string(0x4000, ' ') + "\r\n", 1000000));
    const auto outcome = get_json();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("too large"));
}

TEST_F(RestBodyRouting, FailsOnJsonNestedTooDeeply)
{
    peer.answer(http_peer_answer::json(200, std::string(200000, '[')));
    const auto outcome = get_json();
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(outcome.retryable);
    EXPECT_THAT(outcome.text, HasSubstr("nested too deeply"));
    EXPECT_EQ(body.json, nullptr);
}

TEST_F(RestBodyRouting, FailsOnJsonOfSoManyValuesThatMemoryWouldSwell)
{
    std::string text = "[{}";
    while (text.size() < 7UL * 1024 * 1024) {
        text += ",{}";
    }
    peer.answer(http_peer_answer::json(200, text + "]"));
    const auto outcome = get_json();
    EXPECT_FALSE(outcome.ok());
    EXPECT_THAT(outcome.text, HasSubstr("too large"));
}

TEST_F(RestBodyRouting, CountsNoCommasWithinTexts)
{
    const std::string commas(500000, ',');
    peer.answer(http_peer_answer::json(200, "[\"\\\"" + commas + "\"]"));
    EXPECT_TRUE(get_json().ok());
    EXPECT_EQ(json_string_length(json_array_get(body.json, 0)), commas.size() + 1);
}
