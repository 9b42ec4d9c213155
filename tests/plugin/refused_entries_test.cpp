// Entries that refuse what the plug-in does not do.
#include "memory_backend.h"
#include "test_session.h"

#include <gtest/gtest.h>

namespace {

class RefusedEntries : public testing::Test {
  protected:
    RefusedEntries() : host(&iface()) { host.session = session.handle(); }
    static const tirval_gfs_storage_iface_t &iface()
    {
        static tirval_gfs_storage_iface_t table = {};
        table.recv_func = tirval_i_onedrive_recv;
        table.command_func = tirval_i_onedrive_command;
        return table;
    }
    test_session session;
    memory_backend host;
};

TEST_F(RefusedEntries, AStoreIsRefusedBeforeItBegins)
{
    host.upload = "data";
    EXPECT_FALSE(host.recv("/My files/a"));
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_EQ(host.answer.tag, "NOT_IMPLEMENTED");
    EXPECT_EQ(host.begins, 0);
    EXPECT_EQ(host.received, 0U);
    EXPECT_EQ(host.answers, 1);
}

TEST_F(RefusedEntries, ACommandIsRefused)
{
    debug_trace trace;
    EXPECT_FALSE(host.command(TIRVAL_GFS_CMD_MKD, "/My files/d"));
    EXPECT_EQ(host.answer.code, 502);
    EXPECT_EQ(host.answer.tag, "NOT_IMPLEMENTED");
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: enter\n"), 1U);
    EXPECT_EQ(trace.count("tirval_i_onedrive_command: exit: result=0x"), 1U);
}

} // namespace
