// A bounded queue from one thread to another that needs no lock between the two. Several threads may take
// turns at either end when a lock of theirs orders them. Statically initialised; holds plain values.
#pragma once

#include <atomic>
#include <cstddef>

#include "util/prefetch.h"

namespace scc {

// Size is a power of two.
template <class T, std::size_t Size>
class handoff_ring {
    static_assert((Size & (Size - 1)) == 0);

  public:
    constexpr handoff_ring() = default;

    // The giving end. False when the ring is full.
    [[nodiscard]] bool push(T value) {
        const std::size_t at = given_.load(std::memory_order_relaxed);
        if (at - taken_seen_ == Size) {
            taken_seen_ = taken_.load(std::memory_order_acquire);
            if (at - taken_seen_ == Size) {
                return false;
            }
        }
        slots_[at % Size] = value;
        given_.store(at + 1, std::memory_order_release);
        return true;
    }

    // The taking end. False when the ring is empty.
    [[nodiscard]] bool pop(T& value) {
        const std::size_t at = taken_.load(std::memory_order_relaxed);
        if (!holds(at)) {
            return false;
        }
        value = slots_[at % Size];
        taken_.store(at + 1, std::memory_order_release);
        return true;
    }

    // The taking end: looks at what pop will give after as many others. False when that has not come yet.
    [[nodiscard]] bool peek(std::size_t ahead, T& value) {
        const std::size_t at = taken_.load(std::memory_order_relaxed) + ahead;
        if (!holds(at)) {
            return false;
        }
        value = slots_[at % Size];
        return true;
    }

    // Either end.
    [[nodiscard]] bool empty() const {
        return given_.load(std::memory_order_acquire) == taken_.load(std::memory_order_acquire);
    }

    // Either end: how many values have been taken so far.
    [[nodiscard]] std::size_t taken() const { return taken_.load(std::memory_order_relaxed); }

  private:
    [[nodiscard]] bool holds(std::size_t at) {
        if (static_cast<std::ptrdiff_t>(given_seen_ - at) > 0) {
            return true;
        }
        given_seen_ = given_.load(std::memory_order_acquire);
        return static_cast<std::ptrdiff_t>(given_seen_ - at) > 0;
    }

    // What one end writes stands apart from what the other writes, each with its copy of the other's count.
    alignas(cache_line_bytes) std::atomic<std::size_t> given_{0};
    std::size_t taken_seen_ = 0;
    alignas(cache_line_bytes) std::atomic<std::size_t> taken_{0};
    std::size_t given_seen_ = 0;
    alignas(cache_line_bytes) T slots_[Size]{};
};

}  // namespace scc
