// The daemon's loop, on libevent: watched descriptors, timers, and actions deferred to the end of a turn.
// Everything runs on the thread that calls run(); no other thread may call in.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "msg/protocol.h"

namespace scc::sccd {

struct event_closer {
    void operator()(event* ended) const { ::event_free(ended); }
    void operator()(event_base* ended) const { ::event_base_free(ended); }
};
// Watches its descriptor as long as it is added and lives; the descriptor must outlive it.
using owned_event = std::unique_ptr<event, event_closer>;

class event_loop {
  public:
    using clock = std::chrono::steady_clock;
    using loop_action = std::function<void()>;
    using timer_id = std::pair<clock::time_point, u64>;

    event_loop();
    event_loop(const event_loop&) = delete;
    event_loop& operator=(const event_loop&) = delete;

    [[nodiscard]] event_base* base() const { return base_.get(); }
    // An event that is not added yet. Throws std::runtime_error.
    [[nodiscard]] owned_event make_event(int descriptor, short what, event_callback_fn ready, void* context);
    // Starts to watch. Throws std::runtime_error.
    static void add(const owned_event& watched);

    // Actions that are due together run in the order in which they were given.
    timer_id after(std::chrono::milliseconds delay, loop_action action);
    void cancel(const timer_id& timer) { timers_.erase(timer); }

    // Runs `action` at the end of the current turn.
    void defer(loop_action action);

    void run();
    // Makes run() return at the end of the current turn.
    void stop();

  private:
    void expect_next_timer();
    void run_timers();
    void run_deferred();

    std::unique_ptr<event_base, event_closer> base_;
    owned_event timer_;
    owned_event turn_end_;
    u64 last_id_ = 0;
    // libevent does not keep the order of timers that are due together, so it gets the earliest one only.
    std::map<timer_id, loop_action> timers_;
    std::vector<loop_action> deferred_;
};

}  // namespace scc::sccd
