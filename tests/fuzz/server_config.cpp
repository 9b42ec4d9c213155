/* The configuration file. */
#include "fuzz.h"

#include "config.h"

#include <algorithm>

using namespace tirval::server;

namespace {

void require_usable(const config_t &config)
{
    const server_config_t &server = config.server;
    fuzz::require(!server.listen.empty(), "there is an address to listen on");
    fuzz::require(!server.passive_ports ||
                      (server.passive_ports->first >= 1 &&
                       server.passive_ports->first <= server.passive_ports->last),
                  "a range of ports is one");
    fuzz::require(server.max_sessions >= 1 && server.max_sessions_per_host >= 1,
                  "somebody may connect");
    fuzz::require(server.login_timeout.count() > 0 && server.idle_timeout.count() > 0 &&
                      server.data_timeout.count() > 0 && server.shutdown_timeout.count() >= 0 &&
                      config.storage.refresh_after.count() >= 0,
                  "times are not negative");
    fuzz::require(!config.auth.users_file.empty(), "there is a users file");
    fuzz::require(config.spool.directory.is_absolute(), "the spool folder is absolute");
    fuzz::require(url_problem(config.storage.onedrive.graph_url).empty(),
                  "the service's address may be asked");
    fuzz::require(!config.storage.onedrive.graph_url.ends_with('/'), "it has no slash at the end");
}

void parse(std::string_view input)
{
    const config_result_t read = parse_config(input, "f.toml", {});
    if (read.problems.empty()) {
        require_usable(read.config);
    }
    for (const std::string &problem : read.problems) {
        fuzz::require(problem.starts_with("f.toml:"), "a problem names its place");
        fuzz::require(std::ranges::none_of(
                          problem, [](unsigned char byte) { return byte < ' ' || byte == 0x7F; }),
                      "a problem is one clean line");
    }
    /* The input's first line as an override of a configuration that is good. */
    const std::string line(fuzz::take_line(input));
    const config_result_t changed =
        parse_config("[auth]\nusers_file = \"/etc/passwd\"\n", "f.toml", {line});
    if (changed.problems.empty()) {
        require_usable(changed.config);
    }
}

} // namespace

TIRVAL_FUZZ_ENTRY(
    Config,
    (fuzz::entry{
        parse,
        {"[server]\nlisten = [\"127.0.0.1:0\", \"[::]:2811\"]\npassive_ports = \"20000-29999\"\n"
         "login_timeout = 30\nmax_sessions = 5\npublic_address = \"192.0.2.1\"\nsandbox = true\n"
         "[auth]\nusers_file = \"/etc/passwd\"\n",
         "[auth]\nusers_file = \"/etc/passwd\"\n[storage]\nname = \"onedrive\"\nrefresh_after = 0\n"
         "rename_across_folders = \"pass\"\ndelete_checks = \"on\"\n[storage.onedrive]\ngraph_url "
         "= "
         "\"http://127.0.0.1:1/\"\npolicy = '{\"user_api_rate_limit\": 1000}'\n",
         "[log]\nlevel = \"debug\"\nformat = \"json\"\n[spool]\ndirectory = \"/var/tmp\"\n",
         "server.listen=[\"127.0.0.1:99999\"]\n", "server.passive_ports=60000-50000",
         "log.level=loud", "[server\nlisten = 1e400\n", "a.b = [[[[{x = 1}]]]]\n",
         "[server]\nunknown = 2024-01-01\n"},
        8000}))
