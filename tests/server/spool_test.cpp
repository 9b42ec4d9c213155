/*
 * The spool: what fits stays in memory, the rest is in a file that nobody can find.
 */
#include "spool.h"

#include "temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace tirval::server {
namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/* Bytes that differ from those a block before and after. */
std::string pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t n = 0; n < size; ++n) {
        text[n] = static_cast<char>((n * 31 + (n >> 12) * 7) & 0xFF);
    }
    return text;
}

/* Appends in pieces that no border is a multiple of. */
void fill(spool_t &spool, const std::string &data)
{
    constexpr std::size_t piece = 100'003;
    for (std::size_t at = 0; at < data.size(); at += piece) {
        const std::string part = data.substr(at, piece);
        ASSERT_FALSE(spool.append(part));
    }
}

std::string read_all(const spool_t &spool, std::int64_t offset)
{
    std::string all;
    std::vector<char> block(70'001);
    for (;;) {
        std::size_t received = 0;
        EXPECT_FALSE(spool.read(offset + static_cast<std::int64_t>(all.size()), block, received));
        if (received == 0) {
            return all;
        }
        all.append(block.data(), received);
    }
}

bool is_empty(const temp_dir_t &folder)
{
    return std::filesystem::is_empty(folder.path());
}

/* Sets the limit of this process's files while it lives. */
class file_limit_t {
  public:
    explicit file_limit_t(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit lower = before_;
        lower.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lower);
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
    }
    ~file_limit_t()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    file_limit_t(const file_limit_t &) = delete;
    file_limit_t &operator=(const file_limit_t &) = delete;

  private:
    rlimit before_{};
    void (*handler_)(int);
};

TEST(Spool, NothingIsReadBackAsNothing)
{
    const temp_dir_t folder;
    const spool_t spool(folder.path());
    EXPECT_EQ(spool.size(), 0);
    EXPECT_TRUE(spool.is_in_memory());
    EXPECT_EQ(read_all(spool, 0), "");
}

TEST(Spool, FourMebibytesStayInMemoryAndOneByteMoreDoesNot)
{
    const temp_dir_t folder;
    spool_t spool(folder.path());
    const std::string data = pattern(4 * mebibyte);
    fill(spool, data);
    EXPECT_TRUE(spool.is_in_memory());
    EXPECT_EQ(spool.size(), static_cast<std::int64_t>(4 * mebibyte));
    EXPECT_TRUE(read_all(spool, 0) == data);
    ASSERT_FALSE(spool.append(std::string("x")));
    EXPECT_FALSE(spool.is_in_memory());
    EXPECT_EQ(spool.size(), static_cast<std::int64_t>(4 * mebibyte + 1));
    EXPECT_TRUE(read_all(spool, 0) == data + "x");
}

TEST(Spool, ALargeSpoolIsReadBackInOrderFromAnyByte)
{
    const temp_dir_t folder;
    spool_t spool(folder.path());
    const std::string data = pattern(25 * mebibyte);
    fill(spool, data);
    EXPECT_FALSE(spool.is_in_memory());
    EXPECT_TRUE(read_all(spool, 0) == data);
    EXPECT_TRUE(read_all(spool, 10 * mebibyte) == data.substr(10 * mebibyte));
    EXPECT_EQ(read_all(spool, 25 * mebibyte), "");
}

TEST(Spool, TheFileHasNoName)
{
    const temp_dir_t folder;
    {
        spool_t spool(folder.path());
        fill(spool, pattern(5 * mebibyte));
        EXPECT_FALSE(spool.is_in_memory());
        EXPECT_TRUE(is_empty(folder));
    }
    EXPECT_TRUE(is_empty(folder));
}

TEST(Spool, BothKindsOfFilesArePrivateNamelessAndClosedOnExec)
{
    const temp_dir_t folder;
    for (const auto open_file : {open_nameless_file, open_unlinked_file}) {
        const unique_fd_t file = open_file(folder.path());
        ASSERT_TRUE(file) << std::strerror(errno);
        struct stat status {};
        ASSERT_EQ(fstat(file.get(), &status), 0);
        EXPECT_EQ(status.st_nlink, 0U);
        EXPECT_EQ(status.st_mode & 07777U, 0600U);
        EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(write(file.get(), "abc", 3), 3);
        EXPECT_TRUE(is_empty(folder));
    }
}

TEST(Spool, OutOfSpaceIs452)
{
    const temp_dir_t folder;
    const file_limit_t limit(6 * mebibyte);
    spool_t spool(folder.path());
    fill(spool, pattern(5 * mebibyte));
    const auto failure = spool.append(pattern(2 * mebibyte));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, 452);
    EXPECT_EQ(failure->reason, "The server has no space for the file's data");
}

TEST(Spool, OutOfSpaceAtTheMoveToTheFileIs452)
{
    const temp_dir_t folder;
    const file_limit_t limit(mebibyte);
    spool_t spool(folder.path());
    fill(spool, pattern(4 * mebibyte));
    const auto failure = spool.append(std::string("x"));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, 452);
}

TEST(Spool, AMissingFolderIs451WhenAFileIsNeeded)
{
    const temp_dir_t folder;
    spool_t spool(folder / "nowhere");
    fill(spool, pattern(4 * mebibyte));
    const auto failure = spool.append(std::string("x"));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, 451);
}

} // namespace
} // namespace tirval::server
