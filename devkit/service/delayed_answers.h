// Sends answers immediately on the caller's thread, or on a thread of its own, which may delay them, in the
// order in which they were given. The thread runs from start() to stop().
#pragma once

#include <event2/event.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "msg/protocol.h"

namespace scc::service {

class delayed_answers {
  public:
    explicit delayed_answers(std::chrono::milliseconds delay, bool own_thread = false)
        : delay_(delay), own_thread_(own_thread || delay.count() > 0) {}
    ~delayed_answers() { stop(); }
    delayed_answers(const delayed_answers&) = delete;
    delayed_answers& operator=(const delayed_answers&) = delete;

    // Starts no thread if answers are sent immediately. Returns 0, or why there is no thread.
    [[nodiscard]] u32 start();
    // Drops the waiting answers and all later ones.
    void stop();
    void send(std::function<void()> answer);

  private:
    struct base_closer {
        void operator()(event_base* ended) const { ::event_base_free(ended); }
    };

    void send_next();

    const std::chrono::milliseconds delay_;
    const bool own_thread_;
    std::mutex mutex_;
    std::deque<std::function<void()>> waiting_;      // guarded by mutex_; earliest first
    std::unique_ptr<event_base, base_closer> loop_;  // guarded by mutex_; null while no thread runs
    const timeval* wait_ = nullptr;                  // a delay that libevent keeps in order; null: none
    std::thread thread_;
};

}  // namespace scc::service
