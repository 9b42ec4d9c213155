// The program: its command line, its first lines, and its end.
#include "http_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace graph_sim {

namespace {

// The program, started with arguments; ended at the latest with this object.
class program {
  public:
    explicit program(std::vector<std::string> arguments)
    {
        const char *path = std::getenv("TIRVAL_GRAPH_SIM");
        if (path == nullptr) {
            throw std::runtime_error("TIRVAL_GRAPH_SIM names no program");
        }
        arguments.insert(arguments.begin(), path);
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~program()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
        close(err_);
    }
    program(const program &) = delete;
    program &operator=(const program &) = delete;

    std::string line() const
    {
        std::string text;
        char c = 0;
        while (read(out_, &c, 1) == 1 && c != '\n') {
            text.push_back(c);
        }
        return text;
    }
    std::string errors() const
    {
        std::string text;
        char block[4096];
        for (ssize_t got = 0; (got = read(err_, block, sizeof block)) > 0;) {
            text.append(block, static_cast<size_t>(got));
        }
        return text;
    }
    void signal(int number) const { kill(pid_, number); }
    // The exit code, or 1000 and the signal.
    int wait()
    {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

// What a start that fails says; it must fail with code 2.
std::string refusal(const std::vector<std::string> &arguments)
{
    program refused(arguments);
    std::string said = refused.errors();
    EXPECT_EQ(refused.wait(), 2) << said;
    return said;
}

class Program : public testing::Test {
  protected:
    Program()
    {
        std::string name =
            (std::filesystem::temp_directory_path() / "program_test.XXXXXX").string();
        folder = mkdtemp(name.data());
    }
    ~Program() override { std::filesystem::remove_all(folder); }

    std::string file(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder + "/" + name) << text;
        return folder + "/" + name;
    }

    std::string folder;
};

} // namespace

TEST_F(Program, SaysWhereItServesAndWhatItIs)
{
    program running({"--listen", "127.0.0.1:0"});
    const std::string base = running.line();
    EXPECT_THAT(base, testing::MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+"));
    EXPECT_THAT(running.line(), testing::HasSubstr("test and trial tool"));
    http_client client;
    EXPECT_EQ(client.get(base + "/v1.0/me", {"Authorization: Bearer alice-token"}).status, 200);
    running.signal(SIGTERM);
    EXPECT_EQ(running.wait(), 0);
}

TEST_F(Program, StopsOnAnInterrupt)
{
    program running({});
    running.line();
    running.signal(SIGINT);
    EXPECT_EQ(running.wait(), 0);
    EXPECT_EQ(running.errors(), "");
}

TEST_F(Program, ServesASeedAndFaultsFromFiles)
{
    std::filesystem::create_directory(folder + "/data");
    file("data/real.txt", "from disk");
    const std::string seed =
        file("seed.json",
             R"({"accounts": [{"name": "zoe", "tokens": ["z"], "drive": {"import": "data"}}]})");
    const std::string faults =
        file("faults.json", R"({"rules": [{"match": {"kind": "me"}, "action": {"status": 503}}]})");
    program running({"--seed", seed, "--faults", faults});
    const std::string base = running.line();
    http_client client;
    EXPECT_EQ(client.get(base + "/v1.0/me", {"Authorization: Bearer z"}).status, 503);
    http_answer got =
        client.get(base + "/v1.0/me/drive/root:/real.txt:/content", {"Authorization: Bearer z"});
    EXPECT_EQ(client.get(got.headers["location"]).body, "from disk");
}

TEST_F(Program, ImportsAFolder)
{
    file("a.txt", "imported");
    program running({"--import", folder});
    const std::string base = running.line();
    http_client client;
    http_answer got = client.get(base + "/v1.0/me/drive/root:/a.txt:/content",
                                 {"Authorization: Bearer alice-token"});
    EXPECT_EQ(client.get(got.headers["location"]).body, "imported");
}

TEST_F(Program, NamesTheDownloadListener)
{
    program running({"--download-listen", "127.0.0.1:0"});
    running.line();
    running.line();
    EXPECT_THAT(running.line(), testing::MatchesRegex("downloads: http://127\\.0\\.0\\.1:[0-9]+"));
}

TEST_F(Program, NamesWhatIsWrongAndEndsWithCode2)
{
    program taken({});
    const std::string base = taken.line();
    const std::string address = base.substr(base.find("127"));
    EXPECT_EQ(refusal({"--listen", address}),
              "tirval-graph-sim: cannot listen on " + address + ": Address already in use\n");
    EXPECT_THAT(refusal({"--listen", "nowhere"}),
                testing::HasSubstr("\"nowhere\" is not ADDRESS:PORT"));
    EXPECT_EQ(refusal({"--seed", folder + "/missing.json"}),
              "tirval-graph-sim: " + folder + "/missing.json: cannot be read\n");
    EXPECT_EQ(refusal({"--seed", folder}), "tirval-graph-sim: " + folder + ": cannot be read\n");
    const std::string broken = file("broken.json", "{\n \"accounts\": [,]}");
    EXPECT_THAT(refusal({"--seed", broken}),
                testing::StartsWith("tirval-graph-sim: " + broken + ":2:"));
    const std::string wrong = file("wrong.json", R"({"accounts": [{"nmae": "x"}]})");
    EXPECT_EQ(refusal({"--seed", wrong}),
              "tirval-graph-sim: " + wrong + ": /accounts/0: \"name\" is missing or empty\n");
    EXPECT_EQ(refusal({"--faults", file("faults.json", R"({"rules": [{}]})")}),
              "tirval-graph-sim: " + folder + "/faults.json: /rules/0: \"action\" is missing\n");
    EXPECT_THAT(refusal({"--import", folder + "/missing"}),
                testing::HasSubstr(folder + "/missing: cannot be read"));
    EXPECT_THAT(refusal({"--tls-certificate", folder + "/c", "--tls-key", folder + "/k"}),
                testing::HasSubstr(folder + "/c: not a PEM certificate"));
    EXPECT_THAT(refusal({"--tls-key", folder + "/k"}), testing::HasSubstr("--tls-certificate"));
    EXPECT_THAT(refusal({"--no-such-option"}), testing::HasSubstr("--no-such-option"));
    EXPECT_THAT(refusal({"--threads", "0"}), testing::HasSubstr("--threads"));
}

TEST_F(Program, ExplainsItself)
{
    program help({"--help"});
    EXPECT_THAT(help.line(), testing::HasSubstr("OneDrive"));
    EXPECT_EQ(help.wait(), 0);
}

} // namespace graph_sim
