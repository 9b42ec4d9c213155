/*
 * What tests of a session's commands share: a session with the storage in memory behind it, and a
 * client that is logged in.
 */
#ifndef TIRVAL_TESTS_SERVER_SESSION_FIXTURE_H
#define TIRVAL_TESTS_SERVER_SESSION_FIXTURE_H

#include "session_harness.h"

#include <gtest/gtest.h>

#include <memory>

namespace tirval::tests {

class SessionTest : public ::testing::Test {
  protected:
    ftp_client_t &logged_in()
    {
        session.reset(); /* a later session would hold its connection open */
        session = harness.start_logged_in();
        return session->client;
    }

    /* Logged in, with TYPE I. */
    ftp_client_t &binary()
    {
        ftp_client_t &client = logged_in();
        EXPECT_EQ(client.code_of("TYPE I"), 200);
        return client;
    }

    /* Leaves; the session must end without a complaint, and must have kept the storage's rules. */
    void expect_orderly_end()
    {
        session->client.close_connection();
        EXPECT_EQ(session->wait(), 0);
        EXPECT_EQ(shared().paths_not_canonical, 0);
        EXPECT_EQ(shared().starts, shared().ends);
    }

    fake_storage_shared_t &shared() { return *harness.storage.shared; }

    session_harness_t harness;
    std::unique_ptr<running_session_t> session;
};

} // namespace tirval::tests

#endif
