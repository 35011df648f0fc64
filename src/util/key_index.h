// A hash index with open addressing: a lookup costs the same however many entries there are, stays in a
// compact table and never touches the values. The owner locks it.
//
// The owner grows it in steps (growing_array.h) when it is half full. Until a slot is moved, its entry stays
// where it is. An index that nobody grows in time does so itself, at once; without memory it fills up, then
// refuses.
#pragma once

#include <cstdlib>

#include "msg/protocol.h"
#include "util/growing_array.h"

namespace scc {

// HashOf(key) spreads over all bits; FirstSlots is a power of two, at least 2. Keys are compared with ==.
template <class Key, class Value, auto HashOf, std::size_t FirstSlots>
class key_index {
  public:
    struct slot {
        Key key;
        Value* value;  // null: free
    };

    constexpr key_index() = default;

    // Forgets all entries and frees the grown table. Must run before the first use.
    void reset() {
        table_.reset();
        count_ = 0;
        for (std::size_t i = 0; i < FirstSlots; ++i) {
            table_.slots()[i] = {};
        }
    }

    // Null when there is none.
    [[nodiscard]] Value* find(const Key& key) const {
        if (!table_.is_ready()) {
            return nullptr;
        }
        Value* const found = place_of(key)->value;
        if (found != nullptr || !table_.is_growing()) {
            return found;
        }
        const slot* const unmoved = unmoved_place_of(key);
        return unmoved == nullptr ? nullptr : unmoved->value;
    }

    // The key must be new, the value not null. False when the table is full and cannot grow.
    [[nodiscard]] bool insert(const Key& key, Value* value) {
        if (!has_room()) {
            return false;
        }
        *place_of(key) = {key, value};
        ++count_;
        return true;
    }

    // Does nothing when there is none.
    void erase(const Key& key) {
        if (slot* const at = place_of(key); at->value != nullptr) {
            close_gap(static_cast<std::size_t>(at - table_.slots()));
        } else if (slot* const unmoved = table_.is_growing() ? unmoved_place_of(key) : nullptr;
                   unmoved != nullptr) {
            unmoved->value = gone();
        } else {
            return;
        }
        --count_;
    }

    // How many slots the table needs; 0 while it has enough or grows.
    [[nodiscard]] std::size_t buckets_wanted() const {
        return count_ * 2 <= table_.size() || is_growing() ? 0 : table_.size() * 2;
    }

    // Needs no lock. Null without memory.
    [[nodiscard]] static slot* allocate_buckets(std::size_t count) {
        return static_cast<slot*>(std::calloc(count, sizeof(slot)));
    }

    // Takes the slots over; false, and they are still the caller's, when they are not needed any more.
    [[nodiscard]] bool begin_growth(slot* slots, std::size_t count) {
        if (count <= table_.size() || count > buckets_wanted()) {
            return false;
        }
        table_.begin_growth(slots, count);
        return true;
    }

    // Moves the entries of so many slots; returns the former table for the caller to free (growing_array.h).
    [[nodiscard]] slot* move_buckets(std::size_t count) {
        return table_.move(count, [this](slot& from) {
            if (from.value != nullptr && from.value != gone()) {
                *place_of(from.key) = from;
                from.value = gone();
            }
        });
    }

    [[nodiscard]] bool is_growing() const { return table_.is_growing(); }

  private:
    // The value of a slot that is free, but that a lookup must pass: an entry after it would not be found.
    // While the table grows, the slots of the former one that were moved or erased have it.
    [[nodiscard]] Value* gone() const { return const_cast<Value*>(reinterpret_cast<const Value*>(&table_)); }

    [[nodiscard]] std::size_t next(std::size_t at) const { return (at + 1) & table_.mask(); }

    // The key's slot, or the free one where it belongs; one slot is always free.
    [[nodiscard]] slot* place_of(const Key& key) const {
        slot* const slots = table_.slots();
        std::size_t at = HashOf(key) & table_.mask();
        while (slots[at].value != nullptr && !(slots[at].key == key)) {
            at = next(at);
        }
        return &slots[at];
    }

    // The slot of the key in the table that the growth replaces; null when it is not there.
    [[nodiscard]] slot* unmoved_place_of(const Key& key) const {
        slot* const slots = table_.former();
        for (std::size_t at = HashOf(key) & table_.former_mask(); slots[at].value != nullptr;
             at = (at + 1) & table_.former_mask()) {
            if (slots[at].value != gone() && slots[at].key == key) {
                return &slots[at];
            }
        }
        return nullptr;
    }

    // Entries after the gap move into it where a lookup would stop there.
    void close_gap(std::size_t gap) {
        slot* const slots = table_.slots();
        for (std::size_t at = next(gap); slots[at].value != nullptr; at = next(at)) {
            const std::size_t home = HashOf(slots[at].key) & table_.mask();
            if (((at - home) & table_.mask()) >= ((at - gap) & table_.mask())) {
                slots[gap] = slots[at];
                gap = at;
            }
        }
        slots[gap] = {};
    }

    // Room for another entry. Three quarters full, the table does not wait for its owner any longer.
    [[nodiscard]] bool has_room() {
        if ((count_ + 1) * 4 <= table_.size() * 3) {
            return true;
        }
        if (is_growing()) {
            std::free(move_buckets(table_.former_mask() + 1));
        }
        const std::size_t wanted = table_.size() * 2;
        if (slot* const slots = allocate_buckets(wanted); slots != nullptr) {
            table_.begin_growth(slots, wanted);
        }
        return count_ < table_.mask();
    }

    growing_array<slot, FirstSlots> table_;
    std::size_t count_ = 0;
};

}  // namespace scc
