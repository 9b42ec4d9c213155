// Taking a directory on disk into a drive.
#include "seed.h"

#include "names.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace graph_sim {

namespace {

namespace fs = std::filesystem;

timestamp modified_time(const struct stat &facts)
{
    using namespace std::chrono;
    return timestamp(
        floor<milliseconds>(seconds(facts.st_mtim.tv_sec) + nanoseconds(facts.st_mtim.tv_nsec)));
}

void leave_out(const fs::path &path, const char *reason)
{
    std::fprintf(stderr, "tirval-graph-sim: %s is left out: %s\n", path.c_str(), reason);
}

void import_entry(drive &home, item &parent, const fs::path &path)
{
    const std::string name = path.filename().string();
    struct stat facts {};
    if (!is_legal_name(name)) {
        leave_out(path, "the service does not allow this name");
        return;
    }
    // A link to a file counts as the file; a link to a folder could lead in a circle.
    if (stat(path.c_str(), &facts) != 0 ||
        (!S_ISREG(facts.st_mode) && (!S_ISDIR(facts.st_mode) || fs::is_symlink(path)))) {
        leave_out(path, "neither a file nor a folder");
        return;
    }
    const item_times times = item_times::all(modified_time(facts));
    if (S_ISDIR(facts.st_mode)) {
        item *made = home.add_folder(parent, name, times);
        if (made == nullptr) {
            leave_out(path, "another name differs only in case");
            return;
        }
        import_folder(home, *made, path.string());
        return;
    }
    const auto size = static_cast<std::uint64_t>(facts.st_size);
    if (home.add_file(parent, name, disk_content(size, path.string()), times) == nullptr) {
        leave_out(path, "another name differs only in case");
    }
}

} // namespace

void import_folder(drive &home, item &parent, const std::string &directory)
{
    std::error_code error;
    fs::directory_iterator entries(directory, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        import_entry(home, parent, entries->path());
    }
    if (error) {
        throw input_error(directory + ": cannot be read: " + error.message());
    }
}

} // namespace graph_sim
