// A call on a thread of its own, whose sleep the test can observe and interrupt. The signal handler is
// installed without SA_RESTART, so the signal ends the system call in which the thread sleeps.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "support/sleeping_thread.h"

namespace test {

inline constexpr int interrupting_signal = SIGUSR1;

inline void handle_interruptions() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(interrupting_signal, &action, nullptr), 0);
}

template <class Result>
class aside {
  public:
    explicit aside(std::function<Result()> act) {
        auto id = std::make_shared<std::promise<pid_t>>();
        std::future<pid_t> told = id->get_future();
        std::packaged_task<Result()> task(std::move(act));
        result_ = task.get_future();
        thread_ = std::thread([id, task = std::move(task)]() mutable {
            id->set_value(gettid());
            task();
        });
        id_ = told.get();
    }
    ~aside() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    aside(const aside&) = delete;
    aside& operator=(const aside&) = delete;

    [[nodiscard]] bool waits_in(system_calls calls) const { return wait_until_it_sleeps_in(id_, calls); }
    // The thread must already sleep in a system call, or the signal comes too early.
    void interrupt() { ASSERT_EQ(pthread_kill(thread_.native_handle(), interrupting_signal), 0); }

    [[nodiscard]] bool returns() const {
        return result_.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    }
    Result get() {
        Result out = result_.get();
        thread_.join();
        return out;
    }

  private:
    std::future<Result> result_;
    std::thread thread_;
    pid_t id_ = 0;
};

}  // namespace test
