/*
 * The checksum engine against published and independently computed values, with the data given in
 * one piece and in pieces of random sizes.
 */
#include "memory_backend.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

namespace {

std::string counting(size_t size)
{
    std::string data(size, '\0');
    for (size_t index = 0; index < size; ++index) {
        data[index] = static_cast<char>(index % 251);
    }
    return data;
}

std::string all_bytes()
{
    std::string data(256, '\0');
    for (size_t index = 0; index < data.size(); ++index) {
        data[index] = static_cast<char>(index);
    }
    return data;
}

/* Feeds pieces of 1 to `most` bytes. */
std::string checksum(const std::string &algorithm, const std::string &data, size_t most,
                     std::mt19937 &random)
{
    tirval_gfs_checksum_t engine = nullptr;
    EXPECT_EQ(tirval_gfs_checksum_init(algorithm.c_str(), &engine), TIRVAL_SUCCESS);
    for (size_t place = 0; place < data.size();) {
        size_t size =
            std::min(std::uniform_int_distribution<size_t>(1, most)(random), data.size() - place);
        EXPECT_EQ(tirval_gfs_checksum_update(engine, data.data() + place, size), TIRVAL_SUCCESS);
        place += size;
    }
    char *text = nullptr;
    EXPECT_EQ(tirval_gfs_checksum_finalize(engine, &text), TIRVAL_SUCCESS);
    std::string result = text != nullptr ? text : "";
    free(text);
    return result;
}

void expect_checksum(const std::string &algorithm, const std::string &data,
                     const std::string &expected)
{
    std::mt19937 random(4711);
    EXPECT_EQ(checksum(algorithm, data, data.size() + 1, random), expected) << data.size();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(checksum(algorithm, data, 1 + data.size() / 7, random), expected) << data.size();
    }
    EXPECT_EQ(checksum(algorithm, data, 1000, random), expected) << data.size();
}

std::string hex_of_text(const std::string &text)
{
    std::string hex;
    for (unsigned char character : text) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(character));
        hex += digits;
    }
    return hex;
}

TEST(Checksum, QuickXorIsTheHexOfItsBase64Text)
{
    expect_checksum("QuickXORHex", "", "4141414141414141414141414141414141414141414141414141413d");
}

TEST(Checksum, QuickXorAgreesWithIndependentValues)
{
    const std::pair<std::string, const char *> vectors[] = {
        {"a", "YQAAAAAAAAAAAAAAAQAAAAAAAAA="},
        {"abc", "YRDDGAAAAAAAAAAAAwAAAAAAAAA="},
        {"hello world", "aCgDG9jwBhDc4Q1yawMZAAAAAAA="},
        {"The quick brown fox jumps over the lazy dog", "bMSlbysmxJL6S75XwfMcQZOpcr4="},
        {all_bytes(), "QkGEfSisZcA7k+FCh71r2dbCayY="},
        {std::string(1000, 'a'), "cIADHOAABzjAAQ5waAAcgQhEIAI="},
        {counting(1000000), "HdE6CZEtWr3VHJPlFJtbLXBwV0c="},
        {std::string(327680, '\0'), "AAAAAAAAAAAAAAAAAAAFAAAAAAA="},
    };
    for (const auto &[data, base64] : vectors) {
        expect_checksum("QuickXORHex", data, hex_of_text(base64));
    }
}

TEST(Checksum, QuickXorAgreesWithTheBytewiseDefinitionAtEveryLength)
{
    std::mt19937 random(5);
    std::string data;
    for (size_t size = 0; size <= 500; ++size) {
        unsigned char state[20] = {};
        for (size_t index = 0; index < size; ++index) {
            size_t bit = index % 160 * 11 % 160;
            unsigned value = static_cast<unsigned char>(data[index]);
            value <<= bit % 8;
            state[bit / 8] ^= static_cast<unsigned char>(value);
            state[(bit / 8 + 1) % 20] ^= static_cast<unsigned char>(value >> 8);
        }
        state[12] ^= static_cast<unsigned char>(size);
        state[13] ^= static_cast<unsigned char>(size >> 8);
        std::string text = checksum("QuickXORHex", data, 77, random);
        std::string base64;
        for (size_t place = 0; place + 1 < text.size(); place += 2) {
            base64 += static_cast<char>(std::stoi(text.substr(place, 2), nullptr, 16));
        }
        static const std::string letters =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string expected;
        for (size_t place = 0; place < 21; place += 3) {
            unsigned third = place + 2 < 20 ? state[place + 2] : 0u;
            unsigned bits = static_cast<unsigned>(state[place]) << 16 |
                            static_cast<unsigned>(state[place + 1]) << 8 | third;
            for (int shift = 18; shift >= 0; shift -= 6) {
                expected += letters[bits >> shift & 63];
            }
        }
        expected.back() = '=';
        ASSERT_EQ(base64, expected) << size;
        data += static_cast<char>(random());
    }
}

TEST(Checksum, DropboxHashesBlocksOfFourMebibytes)
{
    constexpr size_t block = size_t{4} << 20;
    expect_checksum("Dropbox", "",
                    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    expect_checksum("Dropbox", "abc",
                    "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358");
    expect_checksum("Dropbox", counting(1000000),
                    "81bf015ee712936371b995a701aa0c254bafe85ba76462f5ec80d75b3ae31df5");
    expect_checksum("Dropbox", std::string(block, 'a'),
                    "907a506cf5e706bda5c7a29b43c9c65d8344bd2fa2f22339b359c214812af5a1");
    expect_checksum("Dropbox", std::string(block + 1, 'a'),
                    "5f858b62ccd88447586305aec6fd53c96747cfebf527cbba129a6dfed47d9624");
    expect_checksum("Dropbox", counting(10 << 20),
                    "9b168152f37a1b2c33d9b26ca4a679d5f99f84f8c070fd3a4491d52cbfe96af4");
}

TEST(Checksum, DigestsAgreeWithTheStandardsExamples)
{
    expect_checksum("MD5", "", "d41d8cd98f00b204e9800998ecf8427e");
    expect_checksum("MD5", "abc", "900150983cd24fb0d6963f7d28e17f72");
    expect_checksum("SHA1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d");
    expect_checksum("SHA256", "abc",
                    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    expect_checksum("SHA512", "abc",
                    "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                    "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
    expect_checksum("SHA1", std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(Checksum, AdlerHasEightDigits)
{
    expect_checksum("ADLER32", "", "00000001");
    expect_checksum("ADLER32", "Wikipedia", "11e60398");
    expect_checksum("ADLER32", "a", "00620062");
}

TEST(Checksum, NamesAreComparedWithoutCase)
{
    std::mt19937 random(1);
    EXPECT_EQ(checksum("md5", "abc", 3, random), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(checksum("quickxorhex", "", 3, random).size(), 56u);
    EXPECT_EQ(checksum("DROPBOX", "", 3, random).size(), 64u);
}

TEST(Checksum, AnUnknownNameIsRefusedWith504)
{
    for (const char *name : {"CRC32", "", "MD", "MD55", static_cast<const char *>(nullptr)}) {
        int unset = 0;
        auto *engine = reinterpret_cast<tirval_gfs_checksum_t>(&unset);
        tirval_result_t result = tirval_gfs_checksum_init(name, &engine);
        memory_outcome outcome = memory_outcome::of(result);
        EXPECT_EQ(outcome.code, 504);
        EXPECT_EQ(outcome.tag, "CHECKSUM_NOT_SUPPORTED");
        EXPECT_EQ(engine, nullptr);
        tirval_object_free(tirval_error_get(result));
    }
}

TEST(Checksum, MissingArgumentsFailAndSetTheText)
{
    tirval_result_t results[3];
    char unset[] = "unset";
    char *text = unset;
    results[0] = tirval_gfs_checksum_finalize(nullptr, &text);
    EXPECT_EQ(text, nullptr);
    results[1] = tirval_gfs_checksum_update(nullptr, "a", 1);
    tirval_gfs_checksum_t engine = nullptr;
    ASSERT_EQ(tirval_gfs_checksum_init("MD5", &engine), TIRVAL_SUCCESS);
    EXPECT_EQ(tirval_gfs_checksum_update(engine, nullptr, 0), TIRVAL_SUCCESS);
    results[2] = tirval_gfs_checksum_update(engine, nullptr, 1);
    EXPECT_EQ(tirval_gfs_checksum_finalize(engine, &text), TIRVAL_SUCCESS);
    EXPECT_STREQ(text, "d41d8cd98f00b204e9800998ecf8427e");
    free(text);
    for (tirval_result_t result : results) {
        EXPECT_NE(result, TIRVAL_SUCCESS);
        tirval_object_free(tirval_error_get(result));
    }
}

} // namespace
