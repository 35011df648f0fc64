// An application with an event loop whose results and connections are queued.
#pragma once

#include <unistd.h>

#include <future>
#include <string>
#include <thread>

#include "support/loop_application.h"

namespace test {

struct answer {
    std::uint32_t result;
    std::uint32_t call_id;
    std::thread::id thread;
};

inline event_queue<answer>& answers() {
    static auto* queue = new event_queue<answer>;
    return *queue;
}

inline event_queue<int>& connections() {
    static auto* queue = new event_queue<int>;
    return *queue;
}

inline void on_answer(std::uint32_t result, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
    answers().push({result, call_id, std::this_thread::get_id()});
}

inline void on_connection() {
    connections().push(static_cast<int>(g_scc_client_cb.state.load()));
}

class Agent : public loop_application {
  protected:
    Agent() { info.handlers.addr_learning = on_answer; }

    void expect_answer(std::uint32_t call_id) {
        daemon.send_result(call_id, 0);
        const auto got = answers().wait();
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->call_id, call_id);
    }

    // Call 1 went with its connection: its result reaches no handler, that of the next call does.
    void expect_first_call_dropped() {
        daemon.send_result(1, 0);
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(5, 1, &call_id), 0U);
        EXPECT_EQ(call_id, 2U);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
        expect_answer(2);
        EXPECT_EQ(answers().size(), 0U);
    }

    // Keeps the loop's thread busy until the test releases it.
    template <class Function>
    void while_the_loop_is_busy(const Function& function) {
        std::promise<void> busy;
        std::promise<void> done;
        std::thread blocker([&] {
            in_loop([&] {
                busy.set_value();
                done.get_future().wait();
            });
        });
        busy.get_future().wait();
        function();
        done.set_value();
        blocker.join();
    }

    // The connection ends while the loop is busy: the checker notices it with the next request. The log is
    // on.
    void lose_to_the_checker() {
        while_the_loop_is_busy([this] {
            daemon.close_both();
            ASSERT_EQ(scc_addr_learning(5, 1, nullptr), 0U);
            EXPECT_TRUE(wait_for_log(identity() + "send  message error,ret:32!"));
        });
    }

    static std::string identity() { return "(app id:7, pid:" + std::to_string(getpid()) + ")"; }
};

}  // namespace test
