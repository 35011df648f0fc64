// A scripted daemon and an application with an event loop: the loop runs on a thread of its own, the test's
// thread is the daemon. Use on_loop for calls that belong on the loop's thread.
#pragma once

#include <gtest/gtest.h>
#include <qx_thread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "agent/agent_tasks.h"
#include "client/control_block.h"
#include "scclib.h"
#include "support/aside.h"
#include "support/events.h"
#include "support/handler_events.h"
#include "support/log_capture.h"
#include "support/loop_faults.h"
#include "support/scripted_daemon.h"

namespace test {

// Masters are kept: the library's checker thread lives as long as the process and may still use one.
inline qx_thread_master* kept_master() {
    static auto* kept = new std::vector<qx_thread_master*>;
    kept->push_back(qx_thread_master_create());
    return kept->back();
}

class loop_application : public ::testing::Test {
  protected:
    loop_application() : master(kept_master()) {
        info.app_id = 7;
        info.option = 1;
        info.handlers.server_status = on_status;
        set_timer_seconds(0);
        auto id = std::make_shared<std::promise<pid_t>>();
        std::future<pid_t> told = id->get_future();
        loop_ = std::thread([this, id] {
            id->set_value(gettid());
            qx_thread_master_run(master);
        });
        loop_id_ = told.get();
    }
    ~loop_application() override {
        release_loop();
        qx_thread_master_stop(master);
        loop_.join();
    }

    using work = std::packaged_task<std::uint32_t()>;

    static int run_work(qx_thread* task) {
        (*static_cast<work*>(qx_thread_arg(task)))();
        return 0;
    }

    // Runs the function on the loop's thread and waits for its result.
    std::uint32_t on_loop(const std::function<std::uint32_t()>& function) {
        work packaged(function);
        auto result = packaged.get_future();
        if (qx_thread_add_event_withname(master, run_work, &packaged, 0, "test") == nullptr) {
            ADD_FAILURE() << "the loop takes no task";
            return ~0U;
        }
        if (result.wait_for(std::chrono::seconds(60)) == std::future_status::timeout) {
            ADD_FAILURE() << "the loop is busy for good";
            release_loop();
        }
        return result.get();
    }

    void in_loop(const std::function<void()>& function) {
        on_loop([&function] {
            function();
            return 0U;
        });
    }

    std::uint32_t init() {
        return on_loop([this] { return scc_agent_init(&info, master); });
    }

    void start() {
        ASSERT_EQ(init(), 0U);
        daemon.accept_registration();
        ASSERT_EQ(statuses().wait(), 1U);
        settle();
    }

    // Returns once the task that is running now, and what it schedules, is done.
    void settle() {
        in_loop([] {});
    }

    std::uint32_t finish(std::uint32_t daemon_result = 0) {
        auto result = std::async(std::launch::async, [this] { return on_loop(scc_agent_finish); });
        daemon.answer_unregistration(daemon_result);
        return result.get();
    }

    // A signal ends the system call in which the loop's thread sleeps in the middle of a task.
    void interrupt_loop(system_calls where) {
        handle_interruptions();
        ASSERT_TRUE(wait_until_it_sleeps_in(loop_id_, where));
        ASSERT_EQ(pthread_kill(loop_.native_handle(), interrupting_signal), 0);
    }

    // Waits for a call that runs on the loop; one that does not return fails the test and is released.
    std::uint32_t finished(std::future<std::uint32_t>& running) {
        if (running.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "the call does not return";
            daemon.stop_listening();
            daemon.close_both();
        }
        return running.get();
    }

    // The connection was lost: it comes back with one status 0 and one status 1.
    void expect_reconnection() {
        daemon.accept_registration();
        EXPECT_EQ(statuses().wait(), 0U);
        EXPECT_EQ(statuses().wait(), 1U);
        settle();
        EXPECT_EQ(statuses().size(), 0U);
    }

    // A request and its result get through on the current connection.
    void expect_working_requests() {
        ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
    }

    static std::uint32_t state() { return g_scc_client_cb.state.load(); }

    scc_reg_info info{};
    scripted_daemon daemon;
    qx_thread_master* master;

  private:
    // After a failure the loop may wait for an answer of the daemon.
    void release_loop() {
        daemon.stop_listening();
        daemon.close_both();
    }

    std::thread loop_;
    pid_t loop_id_ = 0;
};

}  // namespace test
