// QuickXorHash against published and computed vectors.
#include "content.h"
#include "hashes.h"

#include <gtest/gtest.h>

namespace graph_sim {

namespace {

std::string quick_xor_of(std::string_view text)
{
    quick_xor running;
    running.update(bytes_of(text));
    return base64(running.digest());
}

std::string counted(size_t size, unsigned modulus)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i % modulus);
    }
    return text;
}

} // namespace

TEST(QuickXorHash, AgreesWithTheVectors)
{
    EXPECT_EQ(quick_xor_of(""), "AAAAAAAAAAAAAAAAAAAAAAAAAAA=");
    EXPECT_EQ(quick_xor_of("a"), "YQAAAAAAAAAAAAAAAQAAAAAAAAA=");
    EXPECT_EQ(quick_xor_of("abc"), "YRDDGAAAAAAAAAAAAwAAAAAAAAA=");
    EXPECT_EQ(quick_xor_of("hello world"), "aCgDG9jwBhDc4Q1yawMZAAAAAAA=");
    EXPECT_EQ(quick_xor_of("The quick brown fox jumps over the lazy dog"),
              "bMSlbysmxJL6S75XwfMcQZOpcr4=");
    EXPECT_EQ(quick_xor_of(counted(256, 256)), "QkGEfSisZcA7k+FCh71r2dbCayY=");
    EXPECT_EQ(quick_xor_of(std::string(1000, 'a')), "cIADHOAABzjAAQ5waAAcgQhEIAI=");
    EXPECT_EQ(quick_xor_of(counted(1'000'000, 251)), "HdE6CZEtWr3VHJPlFJtbLXBwV0c=");
    EXPECT_EQ(quick_xor_of(std::string(327'680, '\0')), "AAAAAAAAAAAAAAAAAAAFAAAAAAA=");
}

TEST(QuickXorHash, DoesNotDependOnHowTheDataIsCut)
{
    const std::string text = counted(10'000, 251);
    for (const size_t step : {1U, 7U, 159U, 160U, 161U, 4096U}) {
        quick_xor running;
        for (size_t at = 0; at < text.size(); at += step) {
            running.update(bytes_of(std::string_view(text).substr(at, step)));
        }
        EXPECT_EQ(base64(running.digest()), quick_xor_of(text)) << step;
    }
}

TEST(QuickXorHash, OfPeriodicContentIsRightAtEverySize)
{
    for (const std::uint64_t size : {0U, 1U, 40159U, 40160U, 40161U, 80320U, 120481U, 1'000'000U}) {
        const std::string whole = counted(size, 251);
        EXPECT_EQ(pattern_content(size, "cycle")->hashes(0).quick_xor, quick_xor_of(whole)) << size;
    }
}

TEST(QuickXorHash, OfHugePeriodicContentNeedsNoReading)
{
    // A test that read these bytes would take hours.
    const auto huge = pattern_content(std::uint64_t{1} << 50, "zero");
    EXPECT_EQ(huge->hashes(0).quick_xor, "AAAAAAAAAAAAAAAAAAAAAAAABAA=");
    EXPECT_FALSE(huge->hashes(0).sha1);
}

TEST(Digests, AgreeWithTheVectorsOfFips180)
{
    const auto abc = text_content("abc");
    EXPECT_EQ(abc->hashes(3).sha1, "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(abc->hashes(3).sha256,
              "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(abc->sha256_hex(),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Digests, AreLeftOutAboveTheLimit)
{
    const content_ptr data = text_content("abcd");
    const hash_set &hashes = data->hashes(3);
    EXPECT_FALSE(hashes.quick_xor);
    EXPECT_FALSE(hashes.sha1);
    EXPECT_FALSE(hashes.sha256);
}

} // namespace graph_sim
