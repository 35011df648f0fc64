// A hash table of intrusive list nodes. It grows with its contents, so a lookup costs the same however many
// entries there are. Entries with equal keys keep their order: the oldest is found first.
//
// The owner locks it. insert never allocates; grow_if_crowded does, when the owner chooses, and if that
// fails the table stays as it is, only more crowded.
#pragma once

#include <cstdlib>

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
        if (heads_ != first_) {
            std::free(heads_);
        }
        heads_ = first_;
        mask_ = InitialBuckets - 1;
        count_ = 0;
        for (list_node& head : first_) {
            INIT_LIST_HEAD(&head);
        }
    }

    [[nodiscard]] std::size_t size() const { return count_; }

    void insert(list_node* node) {
        list_add_tail(node, &heads_[HashOf(node) & mask_]);
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
        list_node* head = &heads_[hash & mask_];
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
            __builtin_prefetch(&heads_[hash & mask_], 1);
        }
    }
    void prefetch_first(u64 hash) const {
        if (heads_ != nullptr) {
            __builtin_prefetch(heads_[hash & mask_].next, 1);
        }
    }

    // Unlinks every entry and passes it to release, then frees the grown table.
    template <class Release>
    void clear(Release release) {
        if (heads_ == nullptr) {
            return;
        }
        for (std::size_t i = 0; i <= mask_; ++i) {
            while (!list_empty(&heads_[i])) {
                list_node* node = heads_[i].next;
                list_del(node);  // NOLINT(clang-analyzer-unix.Malloc)
                release(node);
            }
        }
        reset();
    }

    void grow_if_crowded() {
        if (count_ <= mask_) {
            return;
        }
        std::size_t buckets = mask_ + 1;
        while (buckets < count_ * 2) {
            buckets *= 2;
        }
        auto* heads = static_cast<list_node*>(std::malloc(buckets * sizeof(list_node)));
        if (heads == nullptr) {
            return;
        }
        move_to(heads, buckets);
    }

  private:
    void move_to(list_node* heads, std::size_t buckets) {
        for (std::size_t i = 0; i < buckets; ++i) {
            INIT_LIST_HEAD(&heads[i]);
        }
        for (std::size_t i = 0; i <= mask_; ++i) {
            while (!list_empty(&heads_[i])) {
                list_node* node = heads_[i].next;
                list_del(node);
                list_add_tail(node, &heads[HashOf(node) & (buckets - 1)]);
            }
        }
        if (heads_ != first_) {
            std::free(heads_);
        }
        heads_ = heads;
        mask_ = buckets - 1;
    }

    list_node first_[InitialBuckets]{};
    list_node* heads_ = nullptr;
    std::size_t mask_ = InitialBuckets - 1;
    std::size_t count_ = 0;
};

}  // namespace scc
