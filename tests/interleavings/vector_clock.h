// Vector clocks: which accesses of other threads happen before a thread's next one.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace interleavings {

inline constexpr unsigned most_threads = 4;  // the main thread is number 0

using tick = std::uint16_t;

struct vector_clock {
    std::array<tick, most_threads> ticks{};

    void join(const vector_clock& other) {
        for (unsigned i = 0; i < most_threads; ++i) {
            ticks[i] = std::max(ticks[i], other.ticks[i]);
        }
    }
    [[nodiscard]] bool covers(unsigned thread, tick when) const { return when <= ticks[thread]; }
};

}  // namespace interleavings
