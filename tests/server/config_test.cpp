/* The configuration: defaults, each key's values, and what is said about bad ones. */
#include "config.h"

#include "temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

using namespace tirval::server;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *least = "[auth]\nusers_file = \"/etc/tirval-users\"\n";

config_result_t parsed(const std::string &text, const std::vector<std::string> &overrides = {})
{
    return parse_config(text, "server.toml", overrides);
}

/* Everything wrong with one key's value, in a configuration that is fine otherwise. */
std::vector<std::string> problems_with(const std::string &section, const std::string &line)
{
    return parsed("[" + section + "]\n" + line + "\n", {"auth.users_file=/etc/tirval-users"})
        .problems;
}

std::string read_file(const std::string &file)
{
    const std::ifstream stream{file};
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

} // namespace

TEST(Config, WhatIsNotSetHasItsDefault)
{
    const auto [config, problems, warnings] = parsed(least);
    EXPECT_THAT(problems, IsEmpty());
    EXPECT_THAT(warnings, IsEmpty());
    EXPECT_THAT(config.server.listen, ElementsAre(listen_address_t{"::", 2811}));
    EXPECT_EQ(config.server.passive_ports, (port_range_t{50000, 50999}));
    EXPECT_EQ(config.server.public_address, "");
    EXPECT_EQ(config.server.max_sessions, 500U);
    EXPECT_EQ(config.server.max_sessions_per_host, 50U);
    EXPECT_EQ(config.server.login_timeout.count(), 60);
    EXPECT_EQ(config.server.shutdown_timeout.count(), 30);
    EXPECT_EQ(config.server.idle_timeout.count(), 900);
    EXPECT_EQ(config.server.data_timeout.count(), 120);
    EXPECT_TRUE(config.server.sandbox);
    EXPECT_EQ(config.storage.name, "onedrive");
    EXPECT_EQ(config.storage.module_dir, "");
    EXPECT_FALSE(config.storage.pass_renames_across_folders);
    EXPECT_FALSE(config.storage.delete_checks);
    EXPECT_EQ(config.storage.refresh_after.count(), 300);
    EXPECT_EQ(config.storage.onedrive.graph_url, "https://graph.microsoft.com");
    EXPECT_EQ(config.storage.onedrive.credential, "$HOME/.tirval/onedrive-credential.json");
    EXPECT_EQ(config.storage.onedrive.policy, R"({"user_api_rate_limit": 15})");
    EXPECT_EQ(config.spool.directory, "/var/tmp");
    EXPECT_EQ(config.log.level, log_level_t::info);
    EXPECT_EQ(config.log.format, log_format_t::text);
    EXPECT_EQ(config.log.file, "");
    EXPECT_EQ(config.log.transfer_log, "");
}

TEST(Config, EveryKeyIsRead)
{
    const auto [config, problems, warnings] = parsed(R"(
[server]
listen = ["127.0.0.1:0", "[::1]:2121"]
passive_ports = "40000-40000"
public_address = "192.0.2.7"
max_sessions = 1
max_sessions_per_host = 2
login_timeout = 3
shutdown_timeout = 0
idle_timeout = 5
data_timeout = 6
sandbox = "off"
[tls]
certificate = ""
key = ""
client_ca = ""
require = "off"
data_session_reuse = "prefer"
[auth]
users_file = "/etc/tirval-users"
pam_service = ""
gridmap = ""
[storage]
name = "other_1"
module_dir = "/usr"
rename_across_folders = "pass"
delete_checks = "on"
refresh_after = 0
[storage.onedrive]
graph_url = "http://127.0.0.1:8080/base/"
credential = "/var/lib/$LOGNAME/c.json"
policy = ""
[spool]
directory = "/tmp"
[log]
level = "debug"
file = "/tmp/server.log"
format = "json"
transfer_log = "/tmp/transfers.log"
)");
    EXPECT_THAT(problems, IsEmpty());
    EXPECT_THAT(warnings, IsEmpty());
    EXPECT_THAT(config.server.listen,
                ElementsAre(listen_address_t{"127.0.0.1", 0}, listen_address_t{"::1", 2121}));
    EXPECT_EQ(config.server.passive_ports, (port_range_t{40000, 40000}));
    EXPECT_EQ(config.server.public_address, "192.0.2.7");
    EXPECT_EQ(config.server.max_sessions, 1U);
    EXPECT_EQ(config.server.max_sessions_per_host, 2U);
    EXPECT_EQ(config.server.login_timeout.count(), 3);
    EXPECT_EQ(config.server.shutdown_timeout.count(), 0);
    EXPECT_EQ(config.server.idle_timeout.count(), 5);
    EXPECT_EQ(config.server.data_timeout.count(), 6);
    EXPECT_FALSE(config.server.sandbox);
    EXPECT_EQ(config.auth.users_file, "/etc/tirval-users");
    EXPECT_EQ(config.storage.name, "other_1");
    EXPECT_EQ(config.storage.module_dir, "/usr");
    EXPECT_TRUE(config.storage.pass_renames_across_folders);
    EXPECT_TRUE(config.storage.delete_checks);
    EXPECT_EQ(config.storage.refresh_after.count(), 0);
    EXPECT_EQ(config.storage.onedrive.graph_url, "http://127.0.0.1:8080/base");
    EXPECT_EQ(config.storage.onedrive.credential, "/var/lib/$LOGNAME/c.json");
    EXPECT_EQ(config.storage.onedrive.policy, "");
    EXPECT_EQ(config.spool.directory, "/tmp");
    EXPECT_EQ(config.log.level, log_level_t::debug);
    EXPECT_EQ(config.log.file, "/tmp/server.log");
    EXPECT_EQ(config.log.format, log_format_t::json);
    EXPECT_EQ(config.log.transfer_log, "/tmp/transfers.log");
}

TEST(Config, AnEmptyPortRangeMeansAnyPort)
{
    const auto result = parsed(least, {"server.passive_ports=\"\""});
    EXPECT_THAT(result.problems, IsEmpty());
    EXPECT_FALSE(result.config.server.passive_ports.has_value());
}

TEST(Config, AnUnknownKeyIsNamedWithItsLine)
{
    EXPECT_THAT(parsed("[auth]\nusers_file = \"/etc/u\"\nuser_file = \"x\"\n").problems,
                ElementsAre("server.toml:3: auth.user_file: unknown key"));
    EXPECT_THAT(parsed(std::string{least} + "[sever]\nlisten = []\n").problems,
                ElementsAre("server.toml:3: sever: unknown key"));
    EXPECT_THAT(parsed("server = 1\n" + std::string{least}).problems,
                ElementsAre("server.toml:1: server: expected a section"));
}

TEST(Config, EverythingWrongIsToldAtOnce)
{
    const auto result =
        parsed("[server]\nmax_sessions = 0\nsandbox = true\n[log]\nlevel = \"loud\"\n",
               {"auth.users_file=users"});
    EXPECT_THAT(
        result.problems,
        testing::UnorderedElementsAre(
            "server.toml:2: server.max_sessions: expected a whole number from 1 to 100000",
            "server.toml:3: server.sandbox: expected a text in quotes",
            "server.toml:5: log.level: expected one of \"debug\", \"info\", \"warning\", \"error\"",
            "--set: auth.users_file: expected an absolute path"));
}

TEST(Config, TextThatIsNotTomlIsRefusedWithItsLine)
{
    EXPECT_THAT(parsed("[server]\nlisten = [\n").problems,
                ElementsAre(testing::StartsWith("server.toml:2: ")));
    EXPECT_THAT(parsed("[server]\nmax_sessions = 1\nmax_sessions = 2\n").problems,
                ElementsAre(testing::StartsWith("server.toml:3: ")));
}

TEST(Config, AServerThatNobodyCouldLogInToIsRefused)
{
    EXPECT_THAT(parsed("").problems,
                ElementsAre("server.toml: auth.users_file: not set, so nobody could log in"));
}

TEST(Config, BadListenAddressesAreRefused)
{
    for (const char *value :
         {"[]", "\"[::]:2811\"", "[1]", "[\"2811\"]", "[\"[::]\"]", "[\"localhost:21\"]",
          "[\"::1:21\"]", "[\"[::1:21\"]", "[\"1.2.3.4:65536\"]", "[\"1.2.3.4:\"]",
          "[\"1.2.3.4:+1\"]", "[\"1.2.3.400:21\"]", "[\"1.2.3.4:21\", \"1.2.3.4:21\"]"}) {
        EXPECT_THAT(problems_with("server", std::string{"listen = "} + value),
                    ElementsAre(testing::StartsWith("server.toml:2: server.listen: ")))
            << value;
    }
}

TEST(Config, BadPortRangesAreRefused)
{
    for (const char *value : {"50000", "50999-50000", "80-90", "1024-65536", "a-b", "-", "1-2-3"}) {
        EXPECT_THAT(problems_with("server", std::string{"passive_ports = \""} + value + "\""),
                    ElementsAre(testing::StartsWith("server.toml:2: server.passive_ports: ")))
            << value;
    }
}

TEST(Config, NumbersOutOfTheirBoundsAreRefused)
{
    for (const char *line :
         {"max_sessions = 0", "max_sessions = 100001", "max_sessions_per_host = -1",
          "login_timeout = 0", "shutdown_timeout = -1", "idle_timeout = 86401",
          "data_timeout = 1.5", "login_timeout = \"60\"", "data_timeout = 9223372036854775807"}) {
        EXPECT_THAT(problems_with("server", line),
                    ElementsAre(HasSubstr("expected a whole number from ")))
            << line;
    }
}

TEST(Config, OnlyAPlainIpv4AddressCanBeThePublicOne)
{
    for (const char *value : {"ftp.example.org", "::1", "1.2.3", "1.2.3.4 "}) {
        EXPECT_THAT(problems_with("server", std::string{"public_address = \""} + value + "\""),
                    ElementsAre(HasSubstr("expected a numeric IPv4 address")))
            << value;
    }
}

TEST(Config, AStorageNameCannotLeaveTheModuleFolder)
{
    for (const char *value : {"", "../x", "a/b", "a.b"}) {
        EXPECT_THAT(problems_with("storage", std::string{"name = \""} + value + "\""),
                    ElementsAre(HasSubstr("expected letters, digits and \"_\"")))
            << value;
    }
}

TEST(Config, WhatThisVersionDoesNotOfferIsRefusedUnlessItIsOff)
{
    for (const auto &[section, line] : std::vector<std::pair<std::string, std::string>>{
             {"tls", "certificate = \"/etc/cert.pem\""},
             {"tls", "key = \"/etc/key.pem\""},
             {"tls", "client_ca = \"/etc/ca.pem\""},
             {"tls", "require = \"control\""},
             {"tls", "data_session_reuse = \"require\""},
             {"auth", "pam_service = \"ftp\""},
             {"auth", "gridmap = \"/etc/grid-security/grid-mapfile\""}}) {
        EXPECT_THAT(problems_with(section, line),
                    ElementsAre(HasSubstr("not available in this version")))
            << line;
    }
}

TEST(Config, PlainHttpIsForThisMachineAlone)
{
    for (const char *url :
         {"https://graph.microsoft.com", "https://h.example:8443/base", "http://127.0.0.1:1",
          "http://127.9.9.9", "http://[::1]:80", "http://localhost:8080", "http://LOCALHOST"}) {
        EXPECT_EQ(url_problem(url), "") << url;
    }
    for (const char *url :
         {"http://graph.microsoft.com", "http://127.0.0.1.example.org", "http://128.0.0.1",
          "http://[::2]", "http://localhost.example.org", "ftp://127.0.0.1", "file:///etc/passwd",
          "graph.microsoft.com", "", "https://", "https://u:p@h.example", "https://a b"}) {
        EXPECT_NE(url_problem(url), "") << url;
    }
}

TEST(Config, OneTrailingSlashOfTheGraphAddressIsTakenAway)
{
    for (const auto &[given, kept] : std::vector<std::pair<std::string, std::string>>{
             {"https://h.example", "https://h.example"},
             {"https://h.example/", "https://h.example"},
             {"https://h.example/v//", "https://h.example/v/"}}) {
        const auto result = parsed(least, {"storage.onedrive.graph_url=" + given});
        EXPECT_THAT(result.problems, IsEmpty());
        EXPECT_EQ(result.config.storage.onedrive.graph_url, kept);
    }
    EXPECT_THAT(problems_with("storage.onedrive", "graph_url = \"https://h.example/?a=b\""),
                ElementsAre(HasSubstr("without \"?\"")));
}

TEST(Config, ACredentialPathIsAbsoluteAndKnowsTwoVariables)
{
    for (const char *value :
         {"", "credential.json", "$LOGNAME/c.json", "$HOME", "/x/$USER/c", "/x/$", "$HOMES/c"}) {
        EXPECT_THAT(
            problems_with("storage.onedrive", std::string{"credential = \""} + value + "\""),
            ElementsAre(testing::StartsWith("server.toml:2: storage.onedrive.credential: ")))
            << value;
    }
}

TEST(Config, ABadPolicyIsAWarningSinceTheStorageRunsWithoutIt)
{
    for (const char *policy :
         {"{", "[]", "15", R"({"user_api_rate_limit": "15"})", R"({"user_api_rate_limit": 1.5})"}) {
        const auto result =
            parsed("[auth]\nusers_file = \"/etc/u\"\n[storage.onedrive]\npolicy = '" +
                   std::string{policy} + "'\n");
        EXPECT_THAT(result.problems, IsEmpty()) << policy;
        EXPECT_THAT(result.warnings,
                    ElementsAre(testing::StartsWith("server.toml:4: storage.onedrive.policy: ")))
            << policy;
    }
    for (const char *policy : {"{}", R"({"user_api_rate_limit": 0, "other": "x"})"}) {
        EXPECT_THAT(
            parsed(std::string{least} + "[storage.onedrive]\npolicy = '" + policy + "'\n").warnings,
            IsEmpty())
            << policy;
    }
}

TEST(Config, FoldersThatAreNotThereAreNamed)
{
    EXPECT_THAT(problems_with("spool", "directory = \"/no/such\""),
                ElementsAre("server.toml:2: spool.directory: there is no folder /no/such"));
    EXPECT_THAT(problems_with("spool", "directory = \"tmp\""),
                ElementsAre("server.toml:2: spool.directory: expected an absolute path"));
    EXPECT_THAT(problems_with("storage", "module_dir = \"/no/such\""),
                ElementsAre("server.toml:2: storage.module_dir: there is no folder /no/such"));
    EXPECT_THAT(problems_with("log", "file = \"/no/such/log\""),
                ElementsAre("server.toml:2: log.file: there is no folder /no/such"));
    EXPECT_THAT(problems_with("log", "transfer_log = \"x\""),
                ElementsAre("server.toml:2: log.transfer_log: expected an absolute path"));
}

TEST(ConfigOverride, ItWinsOverTheFileAndTheLastOneWins)
{
    const auto result =
        parsed(std::string{least} + "[server]\nmax_sessions = 7\n",
               {"server.max_sessions=8", "server.max_sessions=9", "log.level=\"debug\""});
    EXPECT_THAT(result.problems, IsEmpty());
    EXPECT_EQ(result.config.server.max_sessions, 9U);
    EXPECT_EQ(result.config.log.level, log_level_t::debug);
}

TEST(ConfigOverride, TheValueIsTomlOrElseAText)
{
    const auto result = parsed(least, {"server.listen=[\"127.0.0.1:0\"]", "log.level=debug",
                                       R"(storage.onedrive.policy={"user_api_rate_limit": 99})",
                                       "storage.onedrive.credential=/a=b/$LOGNAME.json"});
    EXPECT_THAT(result.problems, IsEmpty());
    EXPECT_THAT(result.config.server.listen, ElementsAre(listen_address_t{"127.0.0.1", 0}));
    EXPECT_EQ(result.config.log.level, log_level_t::debug);
    EXPECT_EQ(result.config.storage.onedrive.policy, R"({"user_api_rate_limit": 99})");
    EXPECT_EQ(result.config.storage.onedrive.credential, "/a=b/$LOGNAME.json");
}

TEST(ConfigOverride, AValueCannotBringAnotherKeyAlong)
{
    const auto result = parsed(least, {"log.level=\"debug\"\nvalue2 = 1"});
    EXPECT_THAT(result.problems, ElementsAre(HasSubstr("--set: log.level: expected one of")));
}

TEST(ConfigOverride, MistakesAreToldWithTheirKey)
{
    EXPECT_THAT(parsed(least, {"server.max_sesions=1"}).problems,
                ElementsAre("--set: server.max_sesions: unknown key"));
    EXPECT_THAT(parsed(least, {"max_sessions=1"}).problems,
                ElementsAre("--set: max_sessions=1: expected section.key=VALUE"));
    EXPECT_THAT(parsed(least, {"server.max_sessions"}).problems,
                ElementsAre("--set: server.max_sessions: expected section.key=VALUE"));
}

TEST(ConfigFile, AFileIsReadWithItsName)
{
    const temp_dir_t dir;
    const auto file = dir.write("s.toml", std::string{least} + "[server]\nmax_sessions = -1\n");
    EXPECT_THAT(load_config(file, {}).problems,
                ElementsAre(testing::StartsWith(file.string() + ":4: server.max_sessions: ")));
    EXPECT_THAT(load_config(dir.write("s.toml", least), {}).problems, IsEmpty());
}

TEST(ConfigFile, AFileThatCannotBeReadOrTrustedIsNamed)
{
    const temp_dir_t dir;
    EXPECT_THAT(
        load_config(dir / "missing", {}).problems,
        ElementsAre((dir / "missing").string() + ": cannot be read: No such file or directory"));
    EXPECT_THAT(load_config(dir.path(), {}).problems,
                ElementsAre(dir.path().string() + ": is not a file"));
    const auto open_file = dir.write("open.toml", least, 0666);
    EXPECT_THAT(load_config(open_file, {}).problems,
                ElementsAre(HasSubstr("everybody may write it")));
}

/* ---- What administrators read -------------------------------------------------------------- */

TEST(ConfigExample, ItNamesEveryKeyWithItsDefault)
{
    const std::string file = TIRVAL_SOURCE_DIR "/packaging/gridftp-server.toml";
    const auto [example, problems, warnings] = load_config(file, {});
    EXPECT_THAT(problems, IsEmpty());
    EXPECT_THAT(warnings, IsEmpty());
    const config_t plain = parsed(least).config;
    EXPECT_EQ(example.server.listen, plain.server.listen);
    EXPECT_EQ(example.server.passive_ports, plain.server.passive_ports);
    EXPECT_EQ(example.server.max_sessions, plain.server.max_sessions);
    EXPECT_EQ(example.server.max_sessions_per_host, plain.server.max_sessions_per_host);
    EXPECT_EQ(example.server.login_timeout, plain.server.login_timeout);
    EXPECT_EQ(example.server.shutdown_timeout, plain.server.shutdown_timeout);
    EXPECT_EQ(example.server.idle_timeout, plain.server.idle_timeout);
    EXPECT_EQ(example.server.data_timeout, plain.server.data_timeout);
    EXPECT_EQ(example.server.sandbox, plain.server.sandbox);
    EXPECT_EQ(example.storage.refresh_after, plain.storage.refresh_after);
    EXPECT_EQ(example.storage.onedrive.graph_url, plain.storage.onedrive.graph_url);
    EXPECT_EQ(example.storage.onedrive.credential, plain.storage.onedrive.credential);
    EXPECT_EQ(example.storage.onedrive.policy, plain.storage.onedrive.policy);
    EXPECT_EQ(example.spool.directory, plain.spool.directory);
    EXPECT_EQ(example.log.level, plain.log.level);
    EXPECT_EQ(example.log.format, plain.log.format);
    const std::string text = read_file(file);
    for (const std::string &name : config_key_names()) {
        EXPECT_THAT(text, HasSubstr("\n" + name.substr(name.rfind('.') + 1) + " = ")) << name;
    }
}

TEST(ConfigManual, ItDescribesEveryKeyInItsSection)
{
    const std::string manual = read_file(TIRVAL_SOURCE_DIR "/docs/tirval-gridftp-server.toml.5");
    for (const std::string &name : config_key_names()) {
        const auto dot = name.rfind('.');
        const auto begin = manual.find(".SH [" + name.substr(0, dot) + "]");
        ASSERT_NE(begin, std::string::npos) << name;
        const std::string section = manual.substr(begin, manual.find("\n.SH ", begin) - begin);
        EXPECT_THAT(section, testing::ContainsRegex("\n\\.BR .*" + name.substr(dot + 1) + "[ \"]"))
            << name;
    }
}
