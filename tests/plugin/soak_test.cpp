// A session that goes on for very long: what each answer and each error costs is given back.
#include "graph_script.h"
#include "memory_backend.h"
#include "test_session.h"

#include <fstream>
#include <gtest/gtest.h>

#ifdef TIRVAL_ASAN
/* The sanitizer keeps freed memory back; with little of it the process's size tells of ours. */
extern "C" TIRVAL_API const char *__asan_default_options() // NOLINT(bugprone-reserved-identifier)
{
    return "quarantine_size_mb=1:thread_local_quarantine_size_kb=64";
}
#endif

namespace {

constexpr int stats = 1000000;
constexpr int stats_at_first = stats / 20; /* until all buffers have their final size */
constexpr long allowed_growth = 1L << 20;  /* bytes: less than two for each stat */

long resident_bytes()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

class Soak : public testing::Test {
  protected:
    Soak() : session(peer.url("")), host(&iface())
    {
        host.session = session.handle();
        tirval_onedrive_retry_t *state = &session.handle()->retry_state;
        tirval_i_onedrive_retry_state_destroy(state);
        tirval_i_onedrive_retry_path = "/proc/none"; /* nobody can make a file there */
        tirval_i_onedrive_retry_state_create("user-1", 1000000, state);
    }
    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.stat_func = tirval_i_onedrive_stat;
        return table;
    }
    /* By turns an item that is there, one that is not, and one below such. */
    int run_stats(int count)
    {
        const char *const paths[] = {"/My files/there", "/My files/none", "/", "/My files/none/x"};
        int found = 0;
        for (int i = 0; i < count; ++i) {
            found += host.stat(paths[i % 4]) ? 1 : 0;
        }
        return found;
    }

    http_peer peer;
    test_session session;
    memory_backend host;
};

TEST_F(Soak, StatsFromTheCacheKeepNeitherErrorsNorMemory)
{
    ASSERT_EQ(session.handle()->retry_state.fd, -1);
    session.enter("/My files", "there", "1", TIRVAL_ONEDRIVE_FILE);
    session.mark_listed("/My files");
    ASSERT_EQ(run_stats(stats_at_first), stats_at_first / 2);
    const size_t errors = tirval_error_count();
    const long resident = resident_bytes();
    ASSERT_GT(resident, 0);
    EXPECT_EQ(run_stats(stats), stats / 2);
    EXPECT_EQ(tirval_error_count(), errors);
    EXPECT_LT(resident_bytes() - resident, allowed_growth);
    EXPECT_TRUE(peer.requests().empty());
}

/* Every request of such a session fails to get the lock, which is an error that nobody releases. */
TEST_F(Soak, RequestsWithoutASharedRetryFileKeepNoErrors)
{
    constexpr int listings = 300;
    int asked = 0;
    peer.on_request([&asked](const auto &) {
        return ++asked % 2 == 0 ? http_peer_answer::json(404, R"({"error":{"code":"x"}})")
                                : graph::page({graph::file("a")});
    });
    ASSERT_TRUE(host.list("/My files"));
    const size_t errors = tirval_error_count();
    int answered = 0;
    for (int i = 0; i < listings; ++i) {
        answered += host.list("/My files") ? 1 : 0;
    }
    EXPECT_EQ(answered, listings / 2);
    EXPECT_EQ(asked, listings + 1);
    EXPECT_EQ(tirval_error_count(), errors);
}

} // namespace
