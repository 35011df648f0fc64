// A bounded lock-free queue from one producer to one consumer. Several threads may share an end if a lock of
// their own serialises them. Statically initialised; holds plain values.
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

    // Producer. False when the ring is full.
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

    // Consumer. False when the ring is empty.
    [[nodiscard]] bool pop(T& value) {
        const std::size_t at = taken_.load(std::memory_order_relaxed);
        if (!holds(at)) {
            return false;
        }
        value = slots_[at % Size];
        taken_.store(at + 1, std::memory_order_release);
        return true;
    }

    // Consumer: the value that pop returns after `ahead` others. False when it has not arrived yet.
    [[nodiscard]] bool peek(std::size_t ahead, T& value) {
        const std::size_t at = taken_.load(std::memory_order_relaxed) + ahead;
        if (!holds(at)) {
            return false;
        }
        value = slots_[at % Size];
        return true;
    }

    // Both ends.
    [[nodiscard]] bool empty() const {
        return given_.load(std::memory_order_acquire) == taken_.load(std::memory_order_acquire);
    }

    // Both ends: the number of values taken so far.
    [[nodiscard]] std::size_t taken() const { return taken_.load(std::memory_order_relaxed); }

  private:
    [[nodiscard]] bool holds(std::size_t at) {
        if (static_cast<std::ptrdiff_t>(given_seen_ - at) > 0) {
            return true;
        }
        given_seen_ = given_.load(std::memory_order_acquire);
        return static_cast<std::ptrdiff_t>(given_seen_ - at) > 0;
    }

    // The ends write different cache lines; each keeps a copy of the other's count.
    alignas(cache_line_bytes) std::atomic<std::size_t> given_{0};
    std::size_t taken_seen_ = 0;
    alignas(cache_line_bytes) std::atomic<std::size_t> taken_{0};
    std::size_t given_seen_ = 0;
    alignas(cache_line_bytes) T slots_[Size]{};
};

}  // namespace scc
