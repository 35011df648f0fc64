// The slots of a hash table, which a larger array replaces in steps: the owner of the table locks it,
// allocates the larger array without the lock, begins the growth, and moves a few slots at a time, so that
// nobody waits for the lock while a large table moves.
#pragma once

#include <cstdlib>
#include <utility>

#include "msg/protocol.h"

namespace scc {

// Slots are plain values in memory of malloc; FirstSlots is a power of two, and so is each larger size.
template <class Slot, std::size_t FirstSlots>
class growing_array {
  public:
    constexpr growing_array() = default;

    // False before the first reset.
    [[nodiscard]] bool is_ready() const { return slots_ != nullptr; }

    // Frees the larger arrays. The slots of the first stay as they are.
    void reset() {
        release(slots_);
        release(former_);
        former_ = nullptr;
        slots_ = first_;
        mask_ = FirstSlots - 1;
    }

    [[nodiscard]] Slot* slots() const { return slots_; }
    [[nodiscard]] std::size_t mask() const { return mask_; }
    [[nodiscard]] std::size_t size() const { return mask_ + 1; }

    // While it grows: the slots of the former array from moved() on have not been moved yet.
    [[nodiscard]] bool is_growing() const { return former_ != nullptr; }
    [[nodiscard]] Slot* former() const { return former_; }
    [[nodiscard]] std::size_t former_mask() const { return former_mask_; }
    [[nodiscard]] std::size_t moved() const { return moved_; }

    // Not while it grows. Takes ownership of the slots, which are empty.
    void begin_growth(Slot* slots, std::size_t size) {
        former_ = slots_;
        former_mask_ = mask_;
        moved_ = 0;
        slots_ = slots;
        mask_ = size - 1;
    }

    // Moves so many slots. After the last, returns the former array for the caller to free, which takes a
    // while if it is large; null before that, while it does not grow, and for the first array.
    template <class Move>
    [[nodiscard]] Slot* move(std::size_t count, Move move_slot) {
        for (; is_growing() && count != 0; --count) {
            move_slot(former_[moved_]);
            if (moved_++ == former_mask_) {
                Slot* const former = std::exchange(former_, nullptr);
                return former != first_ ? former : nullptr;
            }
        }
        return nullptr;
    }

  private:
    void release(Slot* slots) {
        if (slots != first_) {
            std::free(slots);
        }
    }

    Slot first_[FirstSlots]{};
    Slot* slots_ = nullptr;
    std::size_t mask_ = FirstSlots - 1;
    Slot* former_ = nullptr;
    std::size_t former_mask_ = 0;
    std::size_t moved_ = 0;
};

}  // namespace scc
