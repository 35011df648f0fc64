// When the next transaction may begin. For each one that adds a rule, the kernel walks through all rules that
// the interface can reach, which takes it milliseconds for 10,000 ACEs. Changes that trickle in therefore
// share transactions: those of a few changes get a share of a processor, and wait for their turn when they
// have used more of it. A load of many changes, a change after a quiet time and changes of short lists do not
// wait.
//
// Not thread-safe.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace scc::kernel {

struct pace_limits {
    unsigned part = 20;  // the share is one part of that many
    std::chrono::nanoseconds credit_max = std::chrono::milliseconds(30);  // unused time that is kept
    std::chrono::nanoseconds pause_max = std::chrono::milliseconds(80);
    std::size_t many = 32;  // changes for which a transaction of their own is worth its time
    // A transaction that takes no longer is free.
    std::chrono::nanoseconds cheap = std::chrono::microseconds(500);
};

class transaction_pace {
  public:
    using clock = std::chrono::steady_clock;
    using nanoseconds = std::chrono::nanoseconds;

    explicit transaction_pace(const pace_limits& limits = {}) : limits_(limits), credit_(limits.credit_max) {}

    // A transaction of that many changes ended, and took so much processor time.
    void ended(clock::time_point now, nanoseconds took, std::size_t changes);
    // When one of that many changes may begin; it may be in the past.
    [[nodiscard]] clock::time_point next(std::size_t changes) const;

  private:
    pace_limits limits_;
    nanoseconds credit_;  // at ended_
    clock::time_point ended_{};
};

inline void transaction_pace::ended(clock::time_point now, nanoseconds took, std::size_t changes) {
    credit_ = std::min(limits_.credit_max, credit_ + (now - ended_) / limits_.part);
    ended_ = now;
    if (changes < limits_.many && took > limits_.cheap) {
        const nanoseconds debt_max = limits_.pause_max / limits_.part;
        credit_ = std::max(credit_ - took, -debt_max);
    }
}

inline transaction_pace::clock::time_point transaction_pace::next(std::size_t changes) const {
    const bool waits = changes < limits_.many && credit_ < nanoseconds(0);
    return waits ? ended_ - credit_ * limits_.part : ended_;
}

}  // namespace scc::kernel
