// Sends answers immediately on the caller's thread, or on a thread of its own, which may delay them, in the
// order in which they were given. The thread runs from start() to stop().
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace scc::service {

class delayed_answers {
  public:
    explicit delayed_answers(std::chrono::milliseconds delay, bool own_thread = false)
        : delay_(delay), own_thread_(own_thread || delay.count() > 0) {}
    ~delayed_answers() { stop(); }
    delayed_answers(const delayed_answers&) = delete;
    delayed_answers& operator=(const delayed_answers&) = delete;

    // Starts no thread if answers are sent immediately.
    void start();
    // Drops the waiting answers and all later ones.
    void stop();
    void send(std::function<void()> answer);

  private:
    using clock = std::chrono::steady_clock;
    struct waiting_answer {
        clock::time_point due;
        std::function<void()> send;
    };

    void run();

    const std::chrono::milliseconds delay_;
    const bool own_thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<waiting_answer> waiting_;  // guarded by mutex_; earliest first, since the delay is fixed
    bool ending_ = false;                 // guarded by mutex_
    std::thread thread_;
};

}  // namespace scc::service
