// Entries that survive a recovery only if they are given again: marked stale at its start, fresh again
// when put, dropped at its end. Not thread-safe.
#pragma once

#include <map>
#include <utility>

namespace scc::service {

template <class Key, class Value>
class held_entries {
  public:
    void put(const Key& key, const Value& value) { entries_[key] = {value, false}; }
    [[nodiscard]] bool erase(const Key& key) { return entries_.erase(key) != 0; }

    [[nodiscard]] const Value* find(const Key& key) const {
        const auto found = entries_.find(key);
        return found == entries_.end() ? nullptr : &found->second.value;
    }

    template <class Predicate>
    void mark_stale_if(Predicate predicate) {
        for (auto& [key, kept] : entries_) {
            kept.stale = kept.stale || predicate(kept.value);
        }
    }
    template <class Predicate>
    void drop_stale_if(Predicate predicate) {
        std::erase_if(entries_,
                      [&](const auto& held) { return held.second.stale && predicate(held.second.value); });
    }
    void mark_stale() {
        mark_stale_if([](const Value&) { return true; });
    }
    void drop_stale() {
        drop_stale_if([](const Value&) { return true; });
    }

    template <class Visit>
    void for_each(Visit visit) const {
        for (const auto& [key, kept] : entries_) {
            visit(key, kept.value);
        }
    }

  private:
    struct entry {
        Value value{};
        bool stale = false;
    };

    std::map<Key, entry> entries_;
};

// The same for a single setting, which falls back to its default.
template <class Value>
class held_value {
  public:
    void put(const Value& value) {
        value_ = value;
        stale_ = false;
    }
    [[nodiscard]] const Value& get() const { return value_; }
    void mark_stale() { stale_ = true; }
    void drop_stale() {
        if (stale_) {
            put(Value{});
        }
    }

  private:
    Value value_{};
    bool stale_ = false;
};

}  // namespace scc::service
