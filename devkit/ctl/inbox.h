// Passes results, notifications and the daemon's status from the library's receive thread to the tool.
//
// Handlers put, the main thread takes. Putting never waits for the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "arguments.h"

namespace scc::ctl {

using steady = std::chrono::steady_clock;

struct event {
    enum class kind : std::uint8_t { status, result, notification };
    kind what = kind::status;
    std::uint32_t number = 0;   // the status or the result
    std::uint32_t call_id = 0;  // of a result
    call_values values;         // of a result
    json notification;
};

class inbox {
  public:
    // One per process, since handlers have no context argument. It is never destroyed: the library's
    // threads outlive main.
    static inbox& shared() {
        static inbox& only = *new inbox;
        return only;
    }

    void put_status(std::uint32_t status) {
        {
            const std::lock_guard lock(mutex_);
            registered_ = status == 1;
            registrations_ += status == 1 ? 1 : 0;
        }
        event made;
        made.number = status;
        put(std::move(made));
    }
    void put_result(std::uint32_t result, std::uint32_t call_id, call_values values) {
        event made;
        made.what = event::kind::result;
        made.number = result;
        made.call_id = call_id;
        made.values = std::move(values);
        put(std::move(made));
    }
    void put_notification(json notification) {
        event made;
        made.what = event::kind::notification;
        made.notification = std::move(notification);
        put(std::move(made));
    }

    // How often the daemon has accepted this process.
    [[nodiscard]] std::uint64_t registrations() {
        const std::lock_guard lock(mutex_);
        return registrations_;
    }
    // Waits until the process is registered by a later registration than that many. Takes no event. Returns
    // whether it is.
    bool await_registration(std::uint64_t after, steady::time_point deadline) {
        std::unique_lock lock(mutex_);
        return filled_.wait_until(lock, deadline, [&] { return registered_ && registrations_ > after; });
    }

    // Takes the oldest event. Empty if none arrived before the deadline.
    [[nodiscard]] std::optional<event> take(steady::time_point deadline) {
        std::unique_lock lock(mutex_);
        if (!filled_.wait_until(lock, deadline, [this] { return !events_.empty(); })) {
            return std::nullopt;
        }
        event oldest = std::move(events_.front());
        events_.pop_front();
        return oldest;
    }

    void clear() {
        const std::lock_guard lock(mutex_);
        events_.clear();
    }

  private:
    void put(event made) {
        const std::lock_guard lock(mutex_);
        events_.push_back(std::move(made));
        filled_.notify_one();
    }

    std::mutex mutex_;  // guards what follows
    std::condition_variable filled_;
    std::deque<event> events_;
    bool registered_ = false;
    std::uint64_t registrations_ = 0;
};

}  // namespace scc::ctl
