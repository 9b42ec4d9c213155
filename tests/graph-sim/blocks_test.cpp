// Blocks in memory and in the file, and content that is built from them.
#include "content_builder.h"

#include <gtest/gtest.h>

#include <cstring>

namespace graph_sim {

namespace {

std::string read_all(const content &data, std::uint64_t offset = 0)
{
    std::string bytes;
    std::vector<unsigned char> scratch;
    while (offset + bytes.size() < data.size()) {
        const byte_view part = data.read(offset + bytes.size(), 1U << 20, scratch);
        EXPECT_FALSE(part.empty());
        bytes.append(part.begin(), part.end());
    }
    return bytes;
}

std::string counted(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i % 253);
    }
    return bytes;
}

} // namespace

TEST(BlockStore, CountsWhatIsInUseAndKeepsToItsLimit)
{
    const auto store = std::make_shared<block_store>(1000);
    {
        const block first = store->take(600);
        EXPECT_NE(first.memory(), nullptr);
        const block second = store->take(600);
        EXPECT_EQ(second.memory(), nullptr);
        EXPECT_EQ(store->in_memory(), 600U);
        EXPECT_EQ(store->in_file(), 600U);
    }
    EXPECT_EQ(store->in_memory(), 0U);
    EXPECT_EQ(store->in_file(), 0U);
}

TEST(BlockStore, GivesAWholeBlockOutAgain)
{
    const auto store = std::make_shared<block_store>(block_store::largest * 2);
    const unsigned char *first = store->take(block_store::largest).memory();
    EXPECT_EQ(store->take(block_store::largest).memory(), first);
}

TEST(BlockStore, AFileBlockGivesBackWhatWasWritten)
{
    const auto store = std::make_shared<block_store>(0);
    const block first = store->take(100);
    const block second = store->take(100);
    first.write(10, bytes_of("abc"));
    second.write(10, bytes_of("xyz"));
    std::array<unsigned char, 3> got{};
    EXPECT_EQ(first.read(10, got.data(), got.size()), 3U);
    EXPECT_EQ(std::memcmp(got.data(), "abc", 3), 0);
}

TEST(ContentBuilder, GivesTheBytesBackFromMemoryAndFromTheFile)
{
    const std::string bytes = counted(5'000'001);
    // Nothing, a part, and everything lies in memory.
    for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{3'000'000}, UINT64_MAX}) {
        content_builder builder(std::make_shared<block_store>(limit));
        builder.add(bytes_of(bytes));
        const content_ptr data = std::move(builder).finish();
        EXPECT_EQ(data->size(), bytes.size());
        EXPECT_EQ(read_all(*data), bytes) << limit;
        EXPECT_EQ(read_all(*data, 2'097'151), bytes.substr(2'097'151)) << limit;
        EXPECT_EQ(data->sha256_hex(), hex(bytes_of(sha256(bytes)))) << limit;
    }
}

TEST(ContentBuilder, JoinedPartsHaveTheHashOfTheWhole)
{
    const std::string bytes = counted(1'000'003);
    const auto store = std::make_shared<block_store>(UINT64_MAX);
    content_builder whole(store);
    for (std::size_t at = 0; at < bytes.size(); at += 70'001) {
        content_builder next(store, at);
        next.add(bytes_of(bytes).subspan(at, std::min<std::size_t>(70'001, bytes.size() - at)));
        whole.append(std::move(next));
    }
    const content_ptr data = std::move(whole).finish();
    EXPECT_EQ(read_all(*data), bytes);
    EXPECT_EQ(data->hashes(0, false).quick_xor, text_content(bytes)->hashes(UINT64_MAX).quick_xor);
}

TEST(ContentBuilder, ContentWithoutBytesHasTheHashOfNothing)
{
    content_builder builder(std::make_shared<block_store>(UINT64_MAX));
    const content_ptr data = std::move(builder).finish();
    EXPECT_EQ(data->size(), 0U);
    EXPECT_EQ(data->hashes(0, false).quick_xor, "AAAAAAAAAAAAAAAAAAAAAAAAAAA=");
}

} // namespace graph_sim
