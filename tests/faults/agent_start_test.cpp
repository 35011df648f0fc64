// The event-loop agent's start when memory or threads are short.
#include <gtest/gtest.h>
#include <qx_thread.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "client/control_block.h"
#include "scclib.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

class AgentStart : public ::testing::Test {
  protected:
    AgentStart() : master(qx_thread_master_create()) { info.app_id = 7; }

    test::temp_dir directory;
    scc_reg_info info{};
    qx_thread_master* master;  // kept: the library remembers it
};

TEST_F(AgentStart, WithoutMemoryForTheRecordReturnsTwelveAndStartsNothing) {
    test::fail_allocation(1);
    EXPECT_EQ(scc_agent_init(&info, master), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(scc_agent_init(&info, master), 0U);
}

TEST_F(AgentStart, WithoutAThreadForTheCheckerUndoesEverything) {
    const test::debugging on;
    info.handlers.server_status = [](std::uint32_t) {};
    info.handlers.filter_counter_reset = [](std::uint32_t, std::uint32_t, const scc_acl_key*) {};
    test::fail_call(test::call::pthread_create, 1, EAGAIN);
    EXPECT_EQ(scc_agent_init(&info, master), 11U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("(app id:7, pid:" + std::to_string(getpid()) + ")create scclib thread error!"));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
    EXPECT_EQ(g_scc_client_cb.handlers.filter_counter_reset, info.handlers.filter_counter_reset);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
    EXPECT_EQ(scc_agent_init(&info, master), 0U);
}

}  // namespace
