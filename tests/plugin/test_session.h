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

#include "frame_support.h"
#include "tirval_onedrive_common.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
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
           message_of(result).starts_with("System error in malloc");
}

inline bool is_generic_error(tirval_result_t result, const std::string &text)
{
    return tirval_error_get_type(tirval_error_peek(result)) == 6 &&
           message_of(result).find(text) != std::string::npos;
}

/* Where a generic error says that it was made: source and function; the line when it is a mark. */
struct error_place {
    std::string source;
    std::string function;
    int line = 0;
};

inline error_place place_of(tirval_result_t result)
{
    const char *source = nullptr;
    const char *function = nullptr;
    error_place place;
    if (tirval_error_get_location(tirval_error_peek(result), &source, &function, &place.line)) {
        place.source = source == nullptr ? "" : source;
        place.function = function == nullptr ? "" : function;
    }
    return place;
}

/* The lines that the plug-in writes to its debug channel while this lives. */
class debug_trace : public memory_channel {
  public:
    explicit debug_trace(uint32_t levels = TIRVAL_ONEDRIVE_ALL) : memory_channel(levels) {}

    [[nodiscard]] std::size_t count(const std::string &part) const
    {
        const std::string all = text();
        std::size_t found = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
            ++found;
        }
        return found;
    }
};

class test_session {
  public:
    /* `per_second` requests may go out; the default is no pacing to speak of. */
    explicit test_session(std::string graph_url = "http://127.0.0.1:9",
                          uint32_t per_second = 1000000)
        : url(std::move(graph_url)), retry_path(state / "r")
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
    temporary_folder state;
    error_scope errors;
    std::string url;
    std::string retry_path;
    tirval_onedrive_handle_t *record = nullptr;
};

#endif
