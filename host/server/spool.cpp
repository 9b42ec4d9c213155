/*
 * Files are read and written at offsets, so that what is stored can be read again.
 */
#include "spool.h"

#include "log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tirval::server {
namespace {

unique_fd_t open_spool_file(const std::filesystem::path &directory)
{
    unique_fd_t file = open_nameless_file(directory);
    /* File systems without such files give the first, kernels that do not know them the second. */
    return !file && (errno == EOPNOTSUPP || errno == EISDIR) ? open_unlinked_file(directory)
                                                             : std::move(file);
}

bool is_shortage_of_space(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

failure_t spool_failure(int error, const std::filesystem::path &directory)
{
    log_error("the spool in %s failed: %s", directory.c_str(), std::strerror(error));
    return is_shortage_of_space(error)
               ? make_failure(452, "The server has no space for the file's data")
               : make_failure(451, "The server cannot keep the file's data");
}

} // namespace

unique_fd_t open_nameless_file(const std::filesystem::path &directory)
{
    return unique_fd_t(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
}

unique_fd_t open_unlinked_file(const std::filesystem::path &directory)
{
    std::string name = (directory / "tirval-spool-XXXXXX").string();
    unique_fd_t file(mkostemp(name.data(), O_CLOEXEC));
    if (file && unlink(name.c_str()) != 0) {
        log_error("the spool file %s keeps its name: %s", name.c_str(), std::strerror(errno));
    }
    return file;
}

std::optional<failure_t> spool_t::append(std::span<const char> data)
{
    if (!file_ && memory_.size() + data.size() > memory_limit) {
        if (auto failure = move_to_file()) {
            return failure;
        }
    }
    if (file_) {
        if (auto failure = write_to_file(data)) {
            return failure;
        }
    } else {
        memory_.append(data.data(), data.size());
    }
    size_ += static_cast<std::int64_t>(data.size());
    return std::nullopt;
}

std::optional<failure_t> spool_t::move_to_file()
{
    file_ = open_spool_file(directory_);
    if (!file_) {
        return spool_failure(errno, directory_);
    }
    size_ = 0;
    if (auto failure = write_to_file(memory_)) {
        return failure;
    }
    size_ = static_cast<std::int64_t>(memory_.size());
    memory_ = std::string();
    return std::nullopt;
}

/* Writes behind the first size_ bytes. */
std::optional<failure_t> spool_t::write_to_file(std::span<const char> data) const
{
    off_t offset = size_;
    while (!data.empty()) {
        const ssize_t written = pwrite(file_.get(), data.data(), data.size(), offset);
        if (written < 0 && errno != EINTR) {
            return spool_failure(errno, directory_);
        }
        const auto done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        data = data.subspan(done);
        offset += static_cast<off_t>(done);
    }
    return std::nullopt;
}

std::optional<failure_t> spool_t::read(std::int64_t offset, std::span<char> buffer,
                                       std::size_t &received) const
{
    const std::int64_t left = std::max<std::int64_t>(size_ - offset, 0);
    const auto wanted = static_cast<std::size_t>(
        std::min<std::int64_t>(left, static_cast<std::int64_t>(buffer.size())));
    received = 0;
    if (!file_) {
        received = memory_.copy(buffer.data(), wanted, static_cast<std::size_t>(size_ - left));
        return std::nullopt;
    }
    while (received < wanted) {
        const ssize_t got = pread(file_.get(), buffer.data() + received, wanted - received,
                                  offset + static_cast<off_t>(received));
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return spool_failure(got == 0 ? EIO : errno, directory_);
        }
        received += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    return std::nullopt;
}

} // namespace tirval::server
