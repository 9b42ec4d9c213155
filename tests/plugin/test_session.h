/*
 * A plug-in session for tests: the activated module, a handle with a fresh token whose requests go
 * to a scripted peer, and the errors that the calls leave behind.
 *
 *     http_peer peer;
 *     test_session session(peer.url(""));
 *     tirval_onedrive_path_resolve(session.handle(), "/My files/a", nullptr, nullptr);
 */
#ifndef TIRVAL_TESTS_TEST_SESSION_H
#define TIRVAL_TESTS_TEST_SESSION_H

#include "tirval_onedrive_common.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

/* What an FTP response error says. */
struct ftp_reply {
    int code = 0;
    std::string tag;
    std::optional<std::string> message;
    bool operator==(const ftp_reply &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const ftp_reply &reply)
{
    return out << reply.code << " " << reply.tag << " " << reply.message.value_or("(no message)");
}

/* The reply of a result that is itself an FTP response error; code 0 otherwise. */
inline ftp_reply reply_of(tirval_result_t result)
{
    ftp_reply reply;
    const char *tag = nullptr;
    const char *message = nullptr;
    if (tirval_gfs_ftp_response_error_get(tirval_error_peek(result), &reply.code, &tag, &message)) {
        reply.tag = tag == nullptr ? "" : tag;
        if (message != nullptr) {
            reply.message = message;
        }
    }
    return reply;
}

/* The printed texts of a result's error and its causes. */
inline std::string chain_of(tirval_result_t result)
{
    const tirval_i_onedrive_text_t text(tirval_error_print_chain(tirval_error_peek(result)));
    return text.get();
}

/* The info pair of a result's first error object with pairs, "(absent)" when it has none. */
inline std::string info_of(tirval_result_t result, const char *key)
{
    const char *value = tirval_onedrive_error_get_info(tirval_error_peek(result), key);
    return value == nullptr ? "(absent)" : value;
}

inline bool is_malloc_error(tirval_result_t result)
{
    return result != TIRVAL_SUCCESS &&
           tirval_object_upcast(tirval_error_peek(result), TIRVAL_ERROR_TYPE_ERRNO_DEFINITION) !=
               nullptr &&
           chain_of(result).starts_with("System error in malloc");
}

inline bool is_generic_error(tirval_result_t result, const std::string &text)
{
    return tirval_error_get_type(tirval_error_peek(result)) == 6 &&
           chain_of(result).find(text) != std::string::npos;
}

/* A directory of its own that goes with the test. */
class temporary_directory {
  public:
    temporary_directory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "onedrive-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
        directory = name;
    }
    ~temporary_directory() { std::filesystem::remove_all(directory); }
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;
    const std::string &path() const { return directory; }

  private:
    std::string directory;
};

/* The lines that the plug-in writes to its debug channel while this lives. */
class debug_trace {
  public:
    explicit debug_trace(uint32_t levels = TIRVAL_ONEDRIVE_ALL)
        : before(tirval_i_TIRVAL_ONEDRIVE_debug_handle), stream(open_memstream(&buffer, &length))
    {
        tirval_i_TIRVAL_ONEDRIVE_debug_handle = {levels, 0, stream, false, false};
    }
    ~debug_trace()
    {
        tirval_i_TIRVAL_ONEDRIVE_debug_handle = before;
        std::fclose(stream);
        std::free(buffer);
    }
    debug_trace(const debug_trace &) = delete;
    debug_trace &operator=(const debug_trace &) = delete;

    std::string text()
    {
        std::fflush(stream);
        return {buffer, length};
    }
    std::size_t count(const std::string &part)
    {
        const std::string all = text();
        std::size_t found = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
            ++found;
        }
        return found;
    }

  private:
    tirval_debug_handle_t before;
    char *buffer = nullptr;
    std::size_t length = 0;
    std::FILE *stream;
};

class test_session {
  public:
    /* `per_second` requests may go out; the default is no pacing to speak of. */
    explicit test_session(std::string graph_url = "http://127.0.0.1:9",
                          uint32_t per_second = 1000000)
        : url(std::move(graph_url)), retry_path(state.path() + "/r"),
          scope(tirval_error_scope_create()), outer(tirval_error_scope_enter(scope))
    {
        if (tirval_module_activate(&tirval_gridftp_server_onedrive_module) != 0) {
            throw std::runtime_error("module activation");
        }
        if (url.ends_with('/')) {
            url.pop_back();
        }
        tirval_i_onedrive_graph_url = url.c_str();
        tirval_i_onedrive_retry_path = retry_path.c_str();
        tirval_i_onedrive_max_delay = 1;
        record = static_cast<tirval_onedrive_handle_t *>(std::calloc(1, sizeof *record));
        record->username = strdup("somebody");
        record->userid = strdup("user-1");
        record->access_token = strdup("token-1");
        record->access_token_exp = std::time(nullptr) + 3600;
        record->max_upload = 268435456000;
        tirval_i_onedrive_retry_state_create(record->userid, per_second, &record->retry_state);
        tirval_onedrive_path_cache_init(&record->cache);
        tirval_onedrive_path_cache_init(&record->upload_state);
    }

    ~test_session()
    {
        tirval_i_onedrive_destroy(record);
        tirval_error_scope_enter(outer);
        tirval_error_scope_destroy(scope);
        tirval_module_deactivate(&tirval_gridftp_server_onedrive_module);
        tirval_i_onedrive_graph_url = "https://graph.microsoft.com";
        tirval_i_onedrive_retry_path = "$HOME/.tirval/onedrive-r";
        tirval_i_onedrive_max_delay = 25;
    }
    test_session(const test_session &) = delete;
    test_session &operator=(const test_session &) = delete;

    tirval_onedrive_handle_t *handle() const { return record; }
    const std::string &graph_url() const { return url; }

    tirval_onedrive_path_info_t *cached(const std::string &path) const
    {
        return tirval_onedrive_path_cache_query(&record->cache, path.c_str());
    }

    /* Enters an item into the cache as a listing of `folder` would. */
    tirval_onedrive_path_info_t *enter(const std::string &folder, std::string name, std::string id,
                                       int type = TIRVAL_ONEDRIVE_FOLDER,
                                       std::string parent_id = "drive-1", bool listed = false)
    {
        tirval_onedrive_path_info_t info = {};
        info.name = name.data();
        info.id = id.data();
        info.parent_id = parent_id.data();
        info.type = type;
        info.listed = listed;
        if (tirval_onedrive_path_cache_update(&record->cache, &info, folder.c_str()) != 0) {
            throw std::runtime_error("cache update");
        }
        return cached(folder + (folder.size() > 1 ? "/" : "") + name);
    }

    void mark_listed(const std::string &path) const { cached(path)->listed = true; }

  private:
    temporary_directory state;
    std::string url;
    std::string retry_path;
    tirval_error_scope_t *scope;
    tirval_error_scope_t *outer;
    tirval_onedrive_handle_t *record = nullptr;
};

#endif
