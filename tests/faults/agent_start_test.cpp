// The event-loop agent's start without enough memory or threads.
#include <gtest/gtest.h>
#include <qx_thread.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "client/control_block.h"
#include "fault_support.h"
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

// While a start in thread mode is alive, a second reader must not start.
class AgentStartBesideAThread : public test::fault_test {
  protected:
    AgentStartBesideAThread() : master(qx_thread_master_create()) {
        info.app_id = 7;
        info.handlers.server_status = test::on_status;
        test::end_faults();
    }
    ~AgentStartBesideAThread() override {
        test::release_new_threads();
        qx_thread_master_free(master);  // no start has taken it
    }

    void expect_no_agent() {
        const int threads = test::calls(test::call::pthread_create);
        const test::debugging on;
        scc_reg_info agent{};
        agent.app_id = 9;
        EXPECT_EQ(scc_agent_init(&agent, master), 0U);
        EXPECT_TRUE(test::logged("(app id:9, pid:" + test::own_pid() + ") already registered!"));
        EXPECT_EQ(test::calls(test::call::pthread_create), threads);
        EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 1U);
    }

    void expect_one_registration(std::uint32_t app_id) {
        const auto [sync, async] = daemon.accept_registration();
        EXPECT_EQ(test::u32_at(sync, 0), app_id);
        EXPECT_EQ(test::u32_at(async, 0), app_id);
        EXPECT_EQ(test::statuses().wait(), 1U);
        ASSERT_EQ(scc_warterline_notify(1), 0U);
        EXPECT_EQ(daemon.read_item(test::side::sync).type, 220);
    }

    qx_thread_master* master;
};

TEST_F(AgentStartBesideAThread, ThatHasNotRunYetChangesNothing) {
    test::hold_new_threads();
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    expect_no_agent();
    ASSERT_FALSE(HasFailure());
    test::release_new_threads();
    expect_one_registration(7);
    expect_working();
}

TEST_F(AgentStartBesideAThread, OfTheServiceThatHasNotRunYetChangesNothing) {
    test::hold_new_threads();
    scc_ss_reg_info service{};
    service.server_status = test::on_status;
    ASSERT_EQ(scc_ss_reg(&service), 0U);
    expect_no_agent();
    ASSERT_FALSE(HasFailure());
    test::release_new_threads();
    expect_one_registration(16);
}

TEST_F(AgentStartBesideAThread, ThatWaitsForTheDaemonChangesNothing) {
    daemon.stop_listening();
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    ASSERT_TRUE(test::eventually([] { return g_scc_client_cb.state.load() == 5; }));
    expect_no_agent();
    daemon.listen();
    expect_one_registration(7);
    expect_working();
}

// The state that a request leaves if it finds the connection dead while an unregistration succeeds or is
// refused.
TEST_F(AgentStartBesideAThread, WhoseStateWasSetBackChangesNothing) {
    daemon.stop_listening();
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    ASSERT_TRUE(test::eventually([] { return g_scc_client_cb.state.load() == 5; }));
    _scc_client_state_set(1);
    expect_no_agent();
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(test::calls(test::call::pthread_create), 2);
    daemon.listen();
    expect_one_registration(7);
    expect_working();
}

// An event loop's start does not wait for scc_lib_lock.
class StartBesideAnAgent : public ::testing::Test {
  protected:
    ~StartBesideAnAgent() override { test::end_faults(); }

    static void start_agent() {
        scc_reg_info agent{};
        agent.app_id = 9;
        EXPECT_EQ(scc_agent_init(&agent, qx_thread_master_create()), 0U);
    }

    // The agent comes first, while the other start creates its directory.
    static void expect_the_agents_start(std::uint32_t (*start)(), const char* app_id) {
        const test::debugging on;
        test::on_call(test::call::mkdir, start_agent);
        EXPECT_EQ(start(), 0U);
        EXPECT_TRUE(test::logged(std::string("(app id:") + app_id + ", pid:" + test::own_pid() +
                                 ") already registered!"));
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 9U);
        EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 0U);
        EXPECT_EQ(test::calls(test::call::pthread_create), 1);
    }

    test::temp_dir directory;
};

TEST_F(StartBesideAnAgent, OfAnApplicationChangesNothing) {
    expect_the_agents_start(
        [] {
            scc_reg_info info{};
            info.app_id = 7;
            return scc_svr_reg(&info);
        },
        "7");
}

TEST_F(StartBesideAnAgent, OfTheServiceChangesNothing) {
    expect_the_agents_start(
        [] {
            const scc_ss_reg_info info{};
            return scc_ss_reg(&info);
        },
        "16");
}

// The event loop's start fails before it adds anything to the loop.
class LoopStartFaults : public ::testing::Test {
  protected:
    LoopStartFaults() { info.app_id = 7; }
    ~LoopStartFaults() override { test::end_faults(); }

    void expect_failed_start(std::uint32_t error) {
        EXPECT_EQ(scc_agent_init(&info, &no_loop), error);
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
        EXPECT_EQ(test::library_threads(), 0U);
    }

    scc_reg_info info{};
    int no_loop = 0;
    test::scripted_daemon daemon;
};

TEST_F(LoopStartFaults, AreReturnedAndLeaveNothing) {
    test::fail_allocation(1);
    expect_failed_start(12);
    test::fail_call(test::call::mkdir, 3, 28);
    expect_failed_start(28);
    test::fail_call(test::call::pthread_create, 1, 11);
    expect_failed_start(11);
}

}  // namespace
