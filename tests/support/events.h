// What handlers report to the test: a queue of texts or values with a bounded wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace test {

template <class Event>
class event_queue {
  public:
    void push(Event event) {
        const std::lock_guard guard(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }

    // The next event; empty after 60 seconds without one.
    std::optional<Event> wait(std::chrono::milliseconds patience = std::chrono::seconds(60)) {
        std::unique_lock guard(mutex_);
        if (!changed_.wait_for(guard, patience, [this] { return !events_.empty(); })) {
            return std::nullopt;
        }
        Event first = std::move(events_.front());
        events_.pop_front();
        return first;
    }

    std::size_t size() {
        const std::lock_guard guard(mutex_);
        return events_.size();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Event> events_;
};

}  // namespace test
