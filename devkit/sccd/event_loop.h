// The daemon's epoll loop: watched descriptors, timers, and actions deferred to the end of a turn.
// Everything runs on the thread that calls run(); no other thread may call in.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace scc::sccd {

class event_loop {
  public:
    using clock = std::chrono::steady_clock;
    using ready_handler = std::function<void(std::uint32_t events)>;
    using loop_action = std::function<void()>;
    using watch_id = std::uint64_t;
    using timer_id = std::pair<clock::time_point, std::uint64_t>;

    event_loop();
    ~event_loop();
    event_loop(const event_loop&) = delete;
    event_loop& operator=(const event_loop&) = delete;

    // Calls `ready` with the epoll events of `descriptor` until unwatch(). The caller keeps the descriptor.
    watch_id watch(int descriptor, std::uint32_t events, ready_handler ready);
    void change(watch_id watch, int descriptor, std::uint32_t events);
    void unwatch(watch_id watch, int descriptor);

    timer_id after(std::chrono::milliseconds delay, loop_action action);
    void cancel(const timer_id& timer) { timers_.erase(timer); }

    // Runs `action` at the end of the current turn.
    void defer(loop_action action) { deferred_.push_back(std::move(action)); }

    void run();
    void stop() { running_ = false; }

  private:
    int wait_ms() const;
    void run_timers();
    void run_deferred();

    int epoll_;
    bool running_ = false;
    std::uint64_t last_id_ = 0;
    std::unordered_map<watch_id, std::shared_ptr<ready_handler>> watches_;
    std::map<timer_id, loop_action> timers_;
    std::vector<loop_action> deferred_;
};

}  // namespace scc::sccd
