// A hash table of intrusive list nodes. It grows with its contents, so a lookup costs the same however many
// entries there are. Entries with equal keys keep their order: the oldest is found first.
//
// The owner locks it, and says when it grows, in steps (growing_array.h). Until a bucket is moved, its
// entries stay where they are and new ones join them.
#pragma once

#include <cstdlib>

#include "msg/protocol.h"
#include "util/growing_array.h"
#include "util/list.h"

namespace scc {

// HashOf(node) is the hash of a linked node; InitialBuckets is a power of two.
template <auto HashOf, std::size_t InitialBuckets>
class bucket_table {
  public:
    constexpr bucket_table() = default;

    // Must run before the first use. The table must be empty: entries are not unlinked.
    void reset() {
        heads_.reset();
        count_ = 0;
        make_empty(heads_.slots(), InitialBuckets);
    }

    [[nodiscard]] std::size_t size() const { return count_; }

    void insert(list_node* node) {
        list_add_tail(node, bucket_of(HashOf(node)));
        ++count_;
    }

    void erase(list_node* node) {
        list_del(node);
        --count_;
    }

    // The oldest entry under this hash that matches, or null.
    template <class Matches>
    [[nodiscard]] list_node* find(u64 hash, Matches matches) const {
        if (!heads_.is_ready()) {
            return nullptr;
        }
        list_node* head = bucket_of(hash);
        for (list_node* node = head->next; node != head; node = node->next) {
            if (matches(node)) {
                return node;
            }
        }
        return nullptr;
    }

    // The two memory accesses of a lookup, started ahead by a caller with many lookups.
    void prefetch_bucket(u64 hash) const {
        if (heads_.is_ready()) {
            __builtin_prefetch(bucket_of(hash), 1);
        }
    }
    void prefetch_first(u64 hash) const {
        if (heads_.is_ready()) {
            __builtin_prefetch(bucket_of(hash)->next, 1);
        }
    }

    // Unlinks every entry and passes it to release_entry, then frees the grown table.
    template <class Release>
    void clear(Release release_entry) {
        if (!heads_.is_ready()) {
            return;
        }
        for (std::size_t i = heads_.moved(); heads_.is_growing() && i <= heads_.former_mask(); ++i) {
            empty(heads_.former()[i], release_entry);
        }
        for (std::size_t i = 0; i <= heads_.mask(); ++i) {
            empty(heads_.slots()[i], release_entry);
        }
        reset();
    }

    // How many buckets the table needs; 0 while it has enough or grows.
    [[nodiscard]] std::size_t buckets_wanted() const {
        if (count_ <= heads_.mask() || is_growing()) {
            return 0;
        }
        std::size_t buckets = heads_.size();
        while (buckets < count_ * 2) {
            buckets *= 2;
        }
        return buckets;
    }

    // Needs no lock. Null without memory: the table then stays as it is, only more crowded.
    [[nodiscard]] static list_node* allocate_buckets(std::size_t buckets) {
        auto* heads = static_cast<list_node*>(std::malloc(buckets * sizeof(list_node)));
        if (heads != nullptr) {
            make_empty(heads, buckets);
        }
        return heads;
    }

    // Takes the buckets over; false, and they are still the caller's, when they are not needed any more.
    [[nodiscard]] bool begin_growth(list_node* heads, std::size_t buckets) {
        if (buckets <= heads_.size() || buckets > buckets_wanted()) {
            return false;
        }
        heads_.begin_growth(heads, buckets);
        return true;
    }

    // Moves the entries of so many buckets; returns the former table for the caller to free
    // (growing_array.h).
    [[nodiscard]] list_node* move_buckets(std::size_t count) {
        return heads_.move(count, [this](list_node& from) {
            while (!list_empty(&from)) {
                list_node* node = from.next;
                list_del(node);
                list_add_tail(node, &heads_.slots()[HashOf(node) & heads_.mask()]);
            }
        });
    }

    [[nodiscard]] bool is_growing() const { return heads_.is_growing(); }

  private:
    [[nodiscard]] list_node* bucket_of(u64 hash) const {
        if (heads_.is_growing() && (hash & heads_.former_mask()) >= heads_.moved()) {
            return &heads_.former()[hash & heads_.former_mask()];
        }
        return &heads_.slots()[hash & heads_.mask()];
    }

    static void make_empty(list_node* heads, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            INIT_LIST_HEAD(&heads[i]);
        }
    }

    template <class Release>
    static void empty(list_node& head, Release release_entry) {
        while (!list_empty(&head)) {
            list_node* node = head.next;
            list_del(node);  // NOLINT(clang-analyzer-unix.Malloc)
            release_entry(node);
        }
    }

    growing_array<list_node, InitialBuckets> heads_;
    std::size_t count_ = 0;
};

}  // namespace scc
