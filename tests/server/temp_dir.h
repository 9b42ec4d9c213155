/*
 * A folder of a test's own, removed with all that is in it.
 */
#ifndef TIRVAL_TESTS_TEMP_DIR_H
#define TIRVAL_TESTS_TEMP_DIR_H

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

class temp_dir_t {
  public:
    temp_dir_t()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tirval-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path_ = name;
    }
    temp_dir_t(const temp_dir_t &) = delete;
    temp_dir_t &operator=(const temp_dir_t &) = delete;
    ~temp_dir_t()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path &path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

    /* Makes or replaces a file. */
    std::filesystem::path write(std::string_view name, std::string_view text,
                                mode_t mode = 0600) const
    {
        const std::filesystem::path file = path_ / name;
        std::ofstream stream{file, std::ios::binary | std::ios::trunc};
        stream.write(text.data(), static_cast<std::streamsize>(text.size()));
        stream.close();
        ::chmod(file.c_str(), mode);
        return file;
    }

    std::string read(std::string_view name) const
    {
        const std::ifstream stream{path_ / name, std::ios::binary};
        std::ostringstream text;
        text << stream.rdbuf();
        return text.str();
    }

  private:
    std::filesystem::path path_;
};

#endif
