// The bytes of generated files, of texts and of files on disk.
#include "content.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace graph_sim {

namespace {

std::string slice(const content &data, std::uint64_t offset, size_t size)
{
    std::string bytes;
    std::vector<unsigned char> scratch;
    while (bytes.size() < size) {
        const byte_view part = data.read(offset + bytes.size(), size - bytes.size(), scratch);
        if (part.empty()) {
            break;
        }
        EXPECT_LE(part.size(), size - bytes.size());
        bytes.append(part.begin(), part.end());
    }
    return bytes;
}

// A file that is gone at the end of the test.
class temporary_file {
  public:
    explicit temporary_file(const std::string &text)
    {
        std::string name =
            (std::filesystem::temp_directory_path() / "content_test.XXXXXX").string();
        close(mkstemp(name.data()));
        path_ = name;
        std::ofstream(path_, std::ios::binary) << text;
    }
    ~temporary_file() { std::filesystem::remove(path_); }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    [[nodiscard]] const std::string &path() const { return path_; }

  private:
    std::string path_;
};

} // namespace

TEST(PatternContent, CycleCountsModulo251FromItsShift)
{
    const auto data = pattern_content(10'000'000'000, "cycle+5");
    for (const std::uint64_t offset :
         {std::uint64_t{0}, std::uint64_t{250}, std::uint64_t{4'294'967'296},
          std::uint64_t{9'999'999'000}}) {
        const std::string bytes = slice(*data, offset, 600);
        for (size_t i = 0; i < bytes.size(); ++i) {
            ASSERT_EQ(static_cast<unsigned char>(bytes[i]), (offset + i + 5) % 251)
                << offset << " " << i;
        }
    }
}

TEST(PatternContent, EndsAtItsSize)
{
    for (const char *pattern : {"cycle", "zero", "random+1"}) {
        const auto data = pattern_content(1000, pattern);
        EXPECT_EQ(slice(*data, 990, 100).size(), 10U) << pattern;
        EXPECT_EQ(slice(*data, 1000, 1).size(), 0U) << pattern;
        EXPECT_EQ(slice(*data, 5000, 1).size(), 0U) << pattern;
    }
}

TEST(PatternContent, RandomIsTheSameHoweverItIsRead)
{
    const auto data = pattern_content(100'000, "random+7");
    const std::string whole = slice(*data, 0, 100'000);
    // The first outputs of splitmix64 for a state of 0 are widely published.
    EXPECT_EQ(slice(*pattern_content(8, "random"), 0, 8),
              std::string("\xAF\xCD\x1D\x7B\x39\xA8\x20\xE2", 8));
    for (const size_t offset : {1U, 7U, 8U, 9U, 4095U, 99'990U}) {
        EXPECT_EQ(slice(*data, offset, 33), whole.substr(offset, 33)) << offset;
    }
    EXPECT_NE(whole.substr(0, 100), slice(*pattern_content(100, "random+8"), 0, 100));
}

TEST(PatternContent, RefusesUnknownPatterns)
{
    for (const char *pattern :
         {"", "cycles", "cycle+", "cycle+x", "cycle+1x", "random-1", "zero+1"}) {
        EXPECT_EQ(pattern_content(10, pattern), nullptr) << pattern;
    }
}

TEST(DiskContent, GivesTheFilesBytes)
{
    std::string text;
    for (int i = 0; i < 300'000; ++i) {
        text += static_cast<char>(i * 7);
    }
    const temporary_file file(text);
    const auto data = disk_content(text.size(), file.path());
    EXPECT_EQ(slice(*data, 0, text.size()), text);
    EXPECT_EQ(slice(*data, 123'456, 1000), text.substr(123'456, 1000));
}

TEST(DiskContent, EndsEarlyWhenTheFileHasShrunkOrGone)
{
    auto file = std::make_unique<temporary_file>("abcdef");
    const auto data = disk_content(6, file->path());
    std::filesystem::resize_file(file->path(), 2);
    EXPECT_EQ(slice(*data, 0, 6), "ab");
    file.reset();
    EXPECT_EQ(slice(*data, 0, 6), "");
}

} // namespace graph_sim
