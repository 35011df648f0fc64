// One epoll loop for the whole daemon: watched descriptors, timers and work put off to the end of a
// turn. Everything runs on the thread that calls run(); nothing here may be called from another.
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

class EventLoop {
  public:
    using Clock = std::chrono::steady_clock;
    using Ready = std::function<void(std::uint32_t events)>;
    using Action = std::function<void()>;
    using WatchId = std::uint64_t;
    using TimerId = std::pair<Clock::time_point, std::uint64_t>;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Calls `ready` with the epoll events of `descriptor` until unwatch(); the descriptor stays the caller's.
    WatchId watch(int descriptor, std::uint32_t events, Ready ready);
    void change(WatchId watch, int descriptor, std::uint32_t events);
    void unwatch(WatchId watch, int descriptor);

    TimerId after(std::chrono::milliseconds delay, Action action);
    void cancel(const TimerId& timer) { timers_.erase(timer); }

    // Runs `action` once everything of the current turn is done.
    void defer(Action action) { deferred_.push_back(std::move(action)); }

    void run();
    void stop() { running_ = false; }

  private:
    int wait_ms() const;
    void run_timers();
    void run_deferred();

    int epoll_;
    bool running_ = false;
    std::uint64_t last_id_ = 0;
    std::unordered_map<WatchId, std::shared_ptr<Ready>> watches_;
    std::map<TimerId, Action> timers_;
    std::vector<Action> deferred_;
};

}  // namespace scc::sccd
