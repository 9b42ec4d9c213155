/*
 * Reads the configuration: one table tells for each key what values it takes and where they go.
 */
#include "config.h"

#include "log.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <jansson.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <toml++/toml.h>

namespace tirval::server {

namespace {

/* ---- Values: each check returns the reason against one, empty when it is fine --------------- */

struct json_deleter_t {
    void operator()(json_t *json) const { json_decref(json); }
};
using json_ptr_t = std::unique_ptr<json_t, json_deleter_t>;

struct curl_url_deleter_t {
    void operator()(CURLU *url) const { curl_url_cleanup(url); }
};
using curl_url_ptr_t = std::unique_ptr<CURLU, curl_url_deleter_t>;

std::optional<std::uint16_t> parse_port(std::string_view text)
{
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return port;
}

std::string parse_listen_address(const std::string &text, listen_address_t &address)
{
    const auto colon = text.rfind(':');
    const auto port = colon == std::string::npos
                          ? std::nullopt
                          : parse_port(std::string_view{text}.substr(colon + 1));
    if (!port) {
        return "\"" + text + "\" is not an address and a port, such as \"[::]:2811\"";
    }
    std::string host = text.substr(0, colon);
    in_addr v4{};
    in6_addr v6{};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        if (inet_pton(AF_INET6, host.c_str(), &v6) != 1) {
            return "\"" + host + "\" is not an IPv6 address";
        }
    } else if (inet_pton(AF_INET, host.c_str(), &v4) != 1) {
        return "\"" + host + "\" is not a numeric address (IPv6 in brackets)";
    }
    address = {host, *port};
    return {};
}

std::string set_listen(config_t &config, const toml::node &node)
{
    const toml::array *array = node.as_array();
    if (array == nullptr || array->empty()) {
        return "expected a list of addresses, such as [\"[::]:2811\"]";
    }
    std::vector<listen_address_t> addresses;
    for (const toml::node &element : *array) {
        const auto text = element.value_exact<std::string>();
        listen_address_t address;
        const std::string reason =
            text ? parse_listen_address(*text, address) : "expected addresses in quotes";
        if (!reason.empty()) {
            return reason;
        }
        if (address.port != 0 && std::ranges::count(addresses, address) > 0) {
            return "\"" + *text + "\" is listed twice";
        }
        addresses.push_back(std::move(address));
    }
    config.server.listen = std::move(addresses);
    return {};
}

std::string set_passive_ports(config_t &config, const std::string &text)
{
    if (text.empty()) {
        config.server.passive_ports.reset();
        return {};
    }
    const auto dash = text.find('-');
    if (dash == std::string::npos) {
        return "expected a range, such as \"50000-50999\"";
    }
    const auto first = parse_port(std::string_view{text}.substr(0, dash));
    const auto last = parse_port(std::string_view{text}.substr(dash + 1));
    if (!first || !last || *first > *last) {
        return "\"" + text + "\" is not a range of ports, such as \"50000-50999\"";
    }
    if (*first < 1024) {
        return "ports below 1024 cannot be opened by a session";
    }
    config.server.passive_ports = port_range_t{*first, *last};
    return {};
}

std::string set_public_address(config_t &config, const std::string &text)
{
    in_addr address{};
    if (!text.empty() && inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return "expected a numeric IPv4 address";
    }
    config.server.public_address = text;
    return {};
}

std::string set_storage_name(config_t &config, const std::string &text)
{
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_';
    };
    if (text.empty() || !std::ranges::all_of(text, allowed)) {
        return "expected letters, digits and \"_\"";
    }
    config.storage.name = text;
    return {};
}

std::string url_part(CURLU *url, CURLUPart part)
{
    char *text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK || text == nullptr) {
        return {};
    }
    const std::unique_ptr<char, decltype(&curl_free)> owner{text, &curl_free};
    return text;
}

curl_url_ptr_t parse_url(const std::string &text)
{
    curl_url_ptr_t url{curl_url()};
    if (url != nullptr && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
        url.reset();
    }
    return url;
}

bool is_loopback(const std::string &host)
{
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return ntohl(v4.s_addr) >> 24 == 127;
    }
    return host == "[::1]" || strcasecmp(host.c_str(), "localhost") == 0;
}

std::string set_graph_url(config_t &config, const std::string &text)
{
    std::string reason = url_problem(text);
    if (!reason.empty()) {
        return reason;
    }
    if (text.find_first_of("?#") != std::string::npos) {
        return "expected an address without \"?\" and \"#\"";
    }
    config.storage.onedrive.graph_url =
        text.ends_with('/') ? text.substr(0, text.size() - 1) : text;
    return {};
}

std::string set_credential(config_t &config, const std::string &text)
{
    if (!text.starts_with('/') && !text.starts_with("$HOME/")) {
        return "expected a path that begins with \"/\" or \"$HOME/\"";
    }
    for (auto at = text.find('$'); at != std::string::npos; at = text.find('$', at + 1)) {
        const std::string_view rest = std::string_view{text}.substr(at);
        if (!rest.starts_with("$HOME") && !rest.starts_with("$LOGNAME")) {
            return "only $HOME and $LOGNAME can stand in it";
        }
    }
    config.storage.onedrive.credential = text;
    return {};
}

/* What the storage would make of the policy; it runs with its defaults where the text is bad. */
std::string policy_problem(const std::string &text)
{
    if (text.empty()) {
        return {};
    }
    json_error_t error;
    const json_ptr_t policy{json_loads(text.c_str(), 0, &error)};
    if (policy == nullptr) {
        return std::string{"not JSON: "} + error.text;
    }
    if (!json_is_object(policy.get())) {
        return "expected a JSON object";
    }
    const json_t *limit = json_object_get(policy.get(), "user_api_rate_limit");
    if (limit != nullptr && !json_is_integer(limit)) {
        return "\"user_api_rate_limit\": expected a whole number";
    }
    return {};
}

std::string set_directory(std::filesystem::path &directory, const std::string &text)
{
    std::error_code error;
    if (!text.starts_with('/')) {
        return "expected an absolute path";
    }
    if (!std::filesystem::is_directory(text, error)) {
        return "there is no folder " + text;
    }
    directory = text;
    return {};
}

/* A file that the server will open itself, or make. */
std::string set_file(std::filesystem::path &file, const std::string &text)
{
    std::error_code error;
    if (text.empty()) {
        file.clear();
        return {};
    }
    if (!text.starts_with('/')) {
        return "expected an absolute path";
    }
    const std::filesystem::path path{text};
    if (!std::filesystem::is_directory(path.parent_path(), error)) {
        return "there is no folder " + path.parent_path().string();
    }
    file = path;
    return {};
}

/* ---- Keys ---------------------------------------------------------------------------------- */

using set_value_t = std::function<std::string(config_t &, const toml::node &)>;

struct config_key_t {
    std::string name;
    set_value_t set;
};

config_key_t text_key(std::string name,
                      std::function<std::string(config_t &, const std::string &)> set)
{
    return {std::move(name),
            [set = std::move(set)](config_t &config, const toml::node &node) -> std::string {
                const auto text = node.value_exact<std::string>();
                if (!text) {
                    return "expected a text in quotes";
                }
                if (text->find('\0') != std::string::npos) {
                    return "a NUL cannot stand in it";
                }
                return set(config, *text);
            }};
}

config_key_t number_key(std::string name, std::int64_t least, std::int64_t most,
                        std::function<void(config_t &, std::int64_t)> set)
{
    return {std::move(name), [=](config_t &config, const toml::node &node) -> std::string {
                const auto number = node.value_exact<std::int64_t>();
                if (!number || *number < least || *number > most) {
                    return "expected a whole number from " + std::to_string(least) + " to " +
                           std::to_string(most);
                }
                set(config, *number);
                return {};
            }};
}

/* A time in seconds, at most one day. */
config_key_t seconds_key(std::string name, std::int64_t least,
                         std::function<std::chrono::seconds &(config_t &)> field)
{
    return number_key(std::move(name), least, 86'400,
                      [field = std::move(field)](config_t &config, std::int64_t number) {
                          field(config) = std::chrono::seconds{number};
                      });
}

template <typename T>
config_key_t choice_key(std::string name, std::vector<std::pair<std::string, T>> choices,
                        std::function<T &(config_t &)> field)
{
    return text_key(std::move(name), [=](config_t &config, const std::string &text) -> std::string {
        std::string names;
        for (const auto &[choice, value] : choices) {
            if (choice == text) {
                field(config) = value;
                return {};
            }
            names += (names.empty() ? "\"" : ", \"") + choice + "\"";
        }
        return "expected one of " + names;
    });
}

/* A key of what this version does not do: it may stand there with its default. */
config_key_t unavailable_key(std::string name, std::string preset)
{
    return text_key(std::move(name),
                    [preset = std::move(preset)](config_t &, const std::string &text) {
                        return text == preset ? std::string{} : "not available in this version";
                    });
}

std::vector<config_key_t> server_keys()
{
    std::vector<config_key_t> keys;
    keys.push_back({"server.listen", set_listen});
    keys.push_back(text_key("server.passive_ports", set_passive_ports));
    keys.push_back(text_key("server.public_address", set_public_address));
    keys.push_back(number_key("server.max_sessions", 1, 100'000, [](config_t &c, std::int64_t n) {
        c.server.max_sessions = static_cast<unsigned>(n);
    }));
    keys.push_back(
        number_key("server.max_sessions_per_host", 1, 100'000, [](config_t &c, std::int64_t n) {
            c.server.max_sessions_per_host = static_cast<unsigned>(n);
        }));
    keys.push_back(seconds_key(
        "server.login_timeout", 1, [](config_t & c) -> auto & { return c.server.login_timeout; }));
    keys.push_back(seconds_key(
        "server.shutdown_timeout", 0,
        [](config_t & c) -> auto & { return c.server.shutdown_timeout; }));
    keys.push_back(seconds_key(
        "server.idle_timeout", 1, [](config_t & c) -> auto & { return c.server.idle_timeout; }));
    keys.push_back(seconds_key(
        "server.data_timeout", 1, [](config_t & c) -> auto & { return c.server.data_timeout; }));
    keys.push_back(choice_key<bool>(
        "server.sandbox", {{"on", true}, {"off", false}},
        [](config_t & c) -> auto & { return c.server.sandbox; }));
    return keys;
}

std::vector<config_key_t> login_keys()
{
    std::vector<config_key_t> keys;
    keys.push_back(unavailable_key("tls.certificate", ""));
    keys.push_back(unavailable_key("tls.key", ""));
    keys.push_back(unavailable_key("tls.client_ca", ""));
    keys.push_back(unavailable_key("tls.require", "off"));
    keys.push_back(unavailable_key("tls.data_session_reuse", "prefer"));
    keys.push_back(text_key("auth.users_file", [](config_t &c, const std::string &text) {
        c.auth.users_file = text;
        return text.empty() || text.starts_with('/') ? std::string{} : "expected an absolute path";
    }));
    keys.push_back(unavailable_key("auth.pam_service", ""));
    keys.push_back(unavailable_key("auth.gridmap", ""));
    return keys;
}

std::vector<config_key_t> storage_keys()
{
    std::vector<config_key_t> keys;
    keys.push_back(text_key("storage.name", set_storage_name));
    keys.push_back(text_key("storage.module_dir", [](config_t &c, const std::string &text) {
        return text.empty() ? std::string{} : set_directory(c.storage.module_dir, text);
    }));
    keys.push_back(choice_key<bool>(
        "storage.rename_across_folders", {{"refuse", false}, {"pass", true}},
        [](config_t & c) -> auto & { return c.storage.pass_renames_across_folders; }));
    keys.push_back(choice_key<bool>(
        "storage.delete_checks", {{"off", false}, {"on", true}},
        [](config_t & c) -> auto & { return c.storage.delete_checks; }));
    keys.push_back(seconds_key(
        "storage.refresh_after", 0,
        [](config_t & c) -> auto & { return c.storage.refresh_after; }));
    keys.push_back(text_key("storage.onedrive.graph_url", set_graph_url));
    keys.push_back(text_key("storage.onedrive.credential", set_credential));
    keys.push_back(text_key("storage.onedrive.policy", [](config_t &c, const std::string &text) {
        c.storage.onedrive.policy = text;
        return std::string{};
    }));
    return keys;
}

std::vector<config_key_t> file_keys()
{
    std::vector<config_key_t> keys;
    keys.push_back(text_key("spool.directory", [](config_t &c, const std::string &text) {
        return set_directory(c.spool.directory, text);
    }));
    keys.push_back(choice_key<log_level_t>(
        "log.level",
        {{"debug", log_level_t::debug},
         {"info", log_level_t::info},
         {"warning", log_level_t::warning},
         {"error", log_level_t::error}},
        [](config_t & c) -> auto & { return c.log.level; }));
    keys.push_back(text_key("log.file", [](config_t &c, const std::string &text) {
        return set_file(c.log.file, text);
    }));
    keys.push_back(choice_key<log_format_t>(
        "log.format", {{"text", log_format_t::text}, {"json", log_format_t::json}},
        [](config_t & c) -> auto & { return c.log.format; }));
    keys.push_back(text_key("log.transfer_log", [](config_t &c, const std::string &text) {
        return set_file(c.log.transfer_log, text);
    }));
    return keys;
}

const std::vector<config_key_t> &all_keys()
{
    static const std::vector<config_key_t> keys = [] {
        std::vector<config_key_t> all;
        for (auto &&group : {server_keys(), login_keys(), storage_keys(), file_keys()}) {
            all.insert(all.end(), group.begin(), group.end());
        }
        return all;
    }();
    return keys;
}

/* ---- Reading ------------------------------------------------------------------------------- */

class reader_t {
  public:
    explicit reader_t(std::string name) : name_(std::move(name)) {}

    void read_text(std::string_view text);
    void read_override(const std::string &text);
    /* Keys and values in a problem may hold anything; the problem is one line all the same. */
    void report(const std::string &problem) { result_.problems.push_back(clean_text(problem)); }
    void check_whole();
    config_result_t take() { return std::move(result_); }

  private:
    void read_table(const toml::table &table, const std::string &section);
    void apply(const std::string &place, const std::string &key, const toml::node &node);
    std::string place_of(const toml::source_region &source) const;

    std::string name_;
    std::string policy_place_; /* where the policy was set */
    config_result_t result_;
};

std::string reader_t::place_of(const toml::source_region &source) const
{
    return name_ + ":" + std::to_string(source.begin.line);
}

void reader_t::apply(const std::string &place, const std::string &key, const toml::node &node)
{
    const auto found = std::ranges::find(all_keys(), key, &config_key_t::name);
    const std::string reason =
        found == all_keys().end() ? "unknown key" : found->set(result_.config, node);
    if (!reason.empty()) {
        report(place + ": " + key + ": " + reason);
    } else if (key == "storage.onedrive.policy") {
        policy_place_ = place;
    }
}

void reader_t::read_table(const toml::table &table, const std::string &section)
{
    for (const auto &[key, node] : table) {
        const std::string name =
            section.empty() ? std::string{key.str()} : section + "." + std::string{key.str()};
        const auto inside = [&](const config_key_t &known) {
            return known.name.starts_with(name + ".");
        };
        if (!std::ranges::any_of(all_keys(), inside)) {
            apply(place_of(key.source()), name, node);
        } else if (node.is_table()) {
            read_table(*node.as_table(), name);
        } else {
            report(place_of(key.source()) + ": " + name + ": expected a section");
        }
    }
}

void reader_t::read_text(std::string_view text)
{
    try {
        read_table(toml::parse(text), "");
    } catch (const toml::parse_error &error) {
        report(place_of(error.source()) + ": " + std::string{error.description()});
    }
}

void reader_t::read_override(const std::string &text)
{
    const auto equals = text.find('=');
    const auto dot = text.rfind('.', equals);
    if (equals == std::string::npos || dot == std::string::npos) {
        report("--set: " + text + ": expected section.key=VALUE");
        return;
    }
    const std::string key = text.substr(0, equals);
    const std::string value = text.substr(equals + 1);
    toml::table table;
    try {
        table = toml::parse("value = " + value);
    } catch (const toml::parse_error &) {
        table.clear();
    }
    if (table.size() != 1) {
        table = toml::table{{"value", value}};
    }
    apply("--set", key, *table.get("value"));
}

void reader_t::check_whole()
{
    const std::string policy = policy_problem(result_.config.storage.onedrive.policy);
    if (!policy.empty()) {
        result_.warnings.push_back(policy_place_ + ": storage.onedrive.policy: " + policy);
    }
    if (result_.problems.empty() && result_.config.auth.users_file.empty()) {
        report(name_ + ": auth.users_file: not set, so nobody could log in");
    }
}

/* Nobody but the administrator may choose what code the server loads. */
std::string file_problem(const std::filesystem::path &file)
{
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        return std::string{"cannot be read: "} + std::strerror(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return "is not a file";
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        return "everybody may write it, so it is not trusted";
    }
    return {};
}

} // namespace

std::vector<std::string> config_key_names()
{
    std::vector<std::string> names;
    for (const config_key_t &key : all_keys()) {
        names.push_back(key.name);
    }
    return names;
}

std::string url_problem(const std::string &url)
{
    const curl_url_ptr_t parsed = parse_url(url);
    if (parsed == nullptr) {
        return "\"" + url + "\" is not an absolute https address";
    }
    if (!url_part(parsed.get(), CURLUPART_USER).empty() ||
        !url_part(parsed.get(), CURLUPART_PASSWORD).empty()) {
        return "a user or password cannot stand in an address";
    }
    const std::string scheme = url_part(parsed.get(), CURLUPART_SCHEME);
    if (scheme == "http" && !is_loopback(url_part(parsed.get(), CURLUPART_HOST))) {
        return "plain http is for this machine alone (127.0.0.1, ::1, localhost); use https";
    }
    if (scheme != "https" && scheme != "http") {
        return "\"" + scheme + "\" is not https";
    }
    return {};
}

config_result_t parse_config(std::string_view text, const std::string &name,
                             const std::vector<std::string> &overrides)
{
    reader_t reader{name};
    reader.read_text(text);
    for (const std::string &override_text : overrides) {
        reader.read_override(override_text);
    }
    reader.check_whole();
    return reader.take();
}

config_result_t load_config(const std::filesystem::path &file,
                            const std::vector<std::string> &overrides)
{
    std::string reason = file_problem(file);
    std::ostringstream text;
    if (reason.empty()) {
        std::ifstream stream{file, std::ios::binary};
        text << stream.rdbuf();
        if (!stream) {
            reason = std::string{"cannot be read: "} + std::strerror(errno);
        }
    }
    if (!reason.empty()) {
        config_result_t result;
        result.problems.push_back(file.string() + ": " + reason);
        return result;
    }
    return parse_config(text.str(), file.string(), overrides);
}

} // namespace tirval::server
