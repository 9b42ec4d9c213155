/*
 * The server's configuration: typed, checked, with its defaults.  Read once by the master before
 * anything else; constant afterwards, so sessions read their copy of the memory without locks.
 */
#ifndef TIRVAL_SERVER_CONFIG_H
#define TIRVAL_SERVER_CONFIG_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tirval::server {

/* A numeric address and a port to listen on; "::" also accepts IPv4.  Port 0: any free one. */
struct listen_address_t {
    std::string host;
    std::uint16_t port = 0;
    bool operator==(const listen_address_t &) const = default;
};

/* Ports `first` to `last`, both included; 1 <= first <= last. */
struct port_range_t {
    std::uint16_t first = 0;
    std::uint16_t last = 0;
    bool operator==(const port_range_t &) const = default;
};

enum class log_level_t { debug, info, warning, error };
enum class log_format_t { text, json };

/* [server] */
struct server_config_t {
    std::vector<listen_address_t> listen{{"::", 2811}}; /* never empty */
    /* ports for data connections; empty: whatever the system gives */
    std::optional<port_range_t> passive_ports{{50000, 50999}};
    std::string public_address;  /* numeric IPv4 told in PASV; empty: the connection's own */
    unsigned max_sessions = 500; /* at least 1 */
    unsigned max_sessions_per_host = 50;       /* at least 1 */
    std::chrono::seconds login_timeout{60};    /* from the connection to the storage's start */
    std::chrono::seconds shutdown_timeout{30}; /* may be 0 */
    std::chrono::seconds idle_timeout{900};    /* without a command */
    std::chrono::seconds data_timeout{120};    /* without data while the client is awaited */
    bool sandbox = true;
};

/* [auth] */
struct auth_config_t {
    std::filesystem::path users_file; /* never empty */
};

/* [storage.onedrive] */
struct onedrive_config_t {
    std::string graph_url = "https://graph.microsoft.com"; /* without a trailing slash */
    /* path template, see credential.h */
    std::string credential = "$HOME/.tirval/onedrive-credential.json";
    /* JSON handed to the storage under the key "config"; empty: none is handed over */
    std::string policy = R"({"user_api_rate_limit": 15})";
};

/* [storage] */
struct storage_config_t {
    std::string name = "onedrive";            /* letters, digits, "_" */
    std::filesystem::path module_dir;         /* empty: looked for beside the program */
    bool pass_renames_across_folders = false; /* rename_across_folders = "pass" */
    bool delete_checks = false;               /* delete_checks = "on" */
    std::chrono::seconds refresh_after{300};  /* 0: never */
    onedrive_config_t onedrive;
};

/* [spool] */
struct spool_config_t {
    std::filesystem::path directory = "/var/tmp"; /* absolute */
};

/* [log] */
struct log_config_t {
    log_level_t level = log_level_t::info;
    std::filesystem::path file; /* empty: standard error */
    log_format_t format = log_format_t::text;
    std::filesystem::path transfer_log; /* empty: none is kept */
};

struct config_t {
    server_config_t server;
    auth_config_t auth;
    storage_config_t storage;
    spool_config_t spool;
    log_config_t log;
};

/*
 * A configuration and what is wrong with it: one line each, "FILE:LINE: KEY: REASON", or
 * "--set: KEY: REASON" for an override.  With problems the configuration must not be used; warnings
 * are about what a server can run without.
 */
struct config_result_t {
    config_t config;
    std::vector<std::string> problems;
    std::vector<std::string> warnings;
};

/*
 * Reads a configuration file (TOML 1.0) and applies `overrides` after it.
 *
 * An override is "section.key=VALUE"; the last dot before "=" ends the section.  VALUE is TOML when
 * it parses as such, else a text.  Everything wrong is reported at once, also unknown keys, keys of
 * what this version does not offer, and what is named but does not exist.  Not thread-safe.
 */
config_result_t load_config(const std::filesystem::path &file,
                            const std::vector<std::string> &overrides);

/* The same for a configuration text; `name` stands for the file in problems. */
config_result_t parse_config(std::string_view text, const std::string &name,
                             const std::vector<std::string> &overrides);

/* The names of all keys, "section.key". */
std::vector<std::string> config_key_names();

/* Why `url` may not be asked: it is not absolute, names a user, or is neither https nor plain http
 * to 127.0.0.0/8, ::1 or localhost.  Empty: it may. */
std::string url_problem(const std::string &url);

} // namespace tirval::server

#endif
