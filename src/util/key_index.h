// A hash index with open addressing: a lookup costs the same however many entries there are, stays in a
// compact table and never touches the values. The owner locks it. It allocates when it grows; without memory
// it fills up, then refuses.
#pragma once

#include <cstdlib>

#include "msg/protocol.h"

namespace scc {

// HashOf(key) spreads over all bits; FirstSlots is a power of two. Keys are compared with ==.
template <class Key, class Value, auto HashOf, std::size_t FirstSlots>
class key_index {
  public:
    constexpr key_index() = default;

    // Forgets all entries and frees the grown table. Must run before the first use.
    void reset() {
        if (slots_ != first_) {
            std::free(slots_);
        }
        slots_ = first_;
        mask_ = FirstSlots - 1;
        count_ = 0;
        for (slot& entry : first_) {
            entry = {};
        }
    }

    // Null when there is none.
    [[nodiscard]] Value* find(const Key& key) const {
        return slots_ == nullptr ? nullptr : slots_[place_of(key)].value;
    }

    // The key must be new, the value not null. False when the table is full and cannot grow.
    [[nodiscard]] bool insert(const Key& key, Value* value) {
        if ((count_ + 1) * 2 > mask_ + 1 && !grow() && count_ == mask_) {
            return false;
        }
        slots_[place_of(key)] = {key, value};
        ++count_;
        return true;
    }

    // Does nothing when there is none. Entries after the gap move into it where a lookup would stop there.
    void erase(const Key& key) {
        std::size_t gap = place_of(key);
        if (slots_[gap].value == nullptr) {
            return;
        }
        for (std::size_t at = next(gap); slots_[at].value != nullptr; at = next(at)) {
            const std::size_t home = HashOf(slots_[at].key) & mask_;
            if (((at - home) & mask_) >= ((at - gap) & mask_)) {
                slots_[gap] = slots_[at];
                gap = at;
            }
        }
        slots_[gap] = {};
        --count_;
    }

  private:
    struct slot {
        Key key;
        Value* value;  // null: free
    };

    [[nodiscard]] std::size_t next(std::size_t at) const { return (at + 1) & mask_; }

    // The key's slot, or the free one where it belongs; one slot is always free.
    [[nodiscard]] std::size_t place_of(const Key& key) const {
        std::size_t at = HashOf(key) & mask_;
        while (slots_[at].value != nullptr && !(slots_[at].key == key)) {
            at = next(at);
        }
        return at;
    }

    bool grow() {
        const std::size_t size = (mask_ + 1) * 2;
        auto* slots = static_cast<slot*>(std::calloc(size, sizeof(slot)));
        if (slots == nullptr) {
            return false;
        }
        slot* before = slots_;
        const std::size_t before_size = mask_ + 1;
        slots_ = slots;
        mask_ = size - 1;
        for (std::size_t i = 0; i < before_size; ++i) {
            if (before[i].value != nullptr) {
                slots_[place_of(before[i].key)] = before[i];
            }
        }
        if (before != first_) {
            std::free(before);
        }
        return true;
    }

    slot first_[FirstSlots]{};
    slot* slots_ = nullptr;
    std::size_t mask_ = FirstSlots - 1;
    std::size_t count_ = 0;
};

}  // namespace scc
