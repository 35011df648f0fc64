// A hash table of intrusive list nodes. It grows with its contents, so a lookup costs the same however many
// entries there are. Entries with equal keys keep their order: the oldest is found first.
//
// The owner locks it, and says when it grows: it allocates the buckets without its lock, begins the growth,
// and moves the entries a few buckets at a time, so that nobody waits for the lock while a large table moves.
// Until a bucket is moved, its entries stay where they are and new ones join them.
#pragma once

#include <cstdlib>
#include <utility>

#include "msg/protocol.h"
#include "util/list.h"

namespace scc {

// HashOf(node) is the hash of a linked node; InitialBuckets is a power of two.
template <auto HashOf, std::size_t InitialBuckets>
class bucket_table {
  public:
    constexpr bucket_table() = default;

    // Must run before the first use. The table must be empty: entries are not unlinked.
    void reset() {
        release(heads_);
        release(old_heads_);
        old_heads_ = nullptr;
        heads_ = first_;
        mask_ = InitialBuckets - 1;
        count_ = 0;
        for (list_node& head : first_) {
            INIT_LIST_HEAD(&head);
        }
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
        if (heads_ == nullptr) {
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
        if (heads_ != nullptr) {
            __builtin_prefetch(bucket_of(hash), 1);
        }
    }
    void prefetch_first(u64 hash) const {
        if (heads_ != nullptr) {
            __builtin_prefetch(bucket_of(hash)->next, 1);
        }
    }

    // Unlinks every entry and passes it to release_entry, then frees the grown table.
    template <class Release>
    void clear(Release release_entry) {
        if (heads_ == nullptr) {
            return;
        }
        for (std::size_t i = moved_; old_heads_ != nullptr && i <= old_mask_; ++i) {
            empty(old_heads_[i], release_entry);
        }
        for (std::size_t i = 0; i <= mask_; ++i) {
            empty(heads_[i], release_entry);
        }
        reset();
    }

    // How many buckets the table needs; 0 while it has enough or grows.
    [[nodiscard]] std::size_t buckets_wanted() const {
        if (count_ <= mask_ || old_heads_ != nullptr) {
            return 0;
        }
        std::size_t buckets = mask_ + 1;
        while (buckets < count_ * 2) {
            buckets *= 2;
        }
        return buckets;
    }

    // Needs no lock. Null without memory: the table then stays as it is, only more crowded.
    [[nodiscard]] static list_node* allocate_buckets(std::size_t buckets) {
        auto* heads = static_cast<list_node*>(std::malloc(buckets * sizeof(list_node)));
        for (std::size_t i = 0; heads != nullptr && i < buckets; ++i) {
            INIT_LIST_HEAD(&heads[i]);
        }
        return heads;
    }

    // Takes the buckets over; false, and they are still the caller's, when they are not needed any more.
    [[nodiscard]] bool begin_growth(list_node* heads, std::size_t buckets) {
        if (buckets <= mask_ + 1 || buckets > buckets_wanted()) {
            return false;
        }
        old_heads_ = heads_;
        old_mask_ = mask_;
        moved_ = 0;
        heads_ = heads;
        mask_ = buckets - 1;
        return true;
    }

    // Moves the entries of so many buckets. After the last, returns the former table for the caller to free,
    // which takes a while if it is large; null before that, and while the table does not grow.
    [[nodiscard]] list_node* move_buckets(std::size_t count) {
        for (; old_heads_ != nullptr && count != 0; --count) {
            list_node& from = old_heads_[moved_];
            while (!list_empty(&from)) {
                list_node* node = from.next;
                list_del(node);
                list_add_tail(node, &heads_[HashOf(node) & mask_]);
            }
            if (moved_++ == old_mask_) {
                list_node* const former = std::exchange(old_heads_, nullptr);
                return former != first_ ? former : nullptr;
            }
        }
        return nullptr;
    }

    [[nodiscard]] bool is_growing() const { return old_heads_ != nullptr; }

  private:
    [[nodiscard]] list_node* bucket_of(u64 hash) const {
        if (old_heads_ != nullptr && (hash & old_mask_) >= moved_) {
            return &old_heads_[hash & old_mask_];
        }
        return &heads_[hash & mask_];
    }

    void release(list_node* heads) {
        if (heads != first_) {
            std::free(heads);
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

    list_node first_[InitialBuckets]{};
    list_node* heads_ = nullptr;
    std::size_t mask_ = InitialBuckets - 1;
    std::size_t count_ = 0;
    // While the table grows: the buckets from moved_ on still hold their entries.
    list_node* old_heads_ = nullptr;
    std::size_t old_mask_ = 0;
    std::size_t moved_ = 0;
};

}  // namespace scc
