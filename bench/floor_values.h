// Where the floor keeps the values of its outstanding requests until their results arrive: nowhere, in slots,
// or in blocks that are searched for. Only floor.cpp uses this.
#pragma once

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "client/tuning.h"
#include "msg/bytes.h"
#include "util/bucket_table.h"
#include "util/handoff_ring.h"

namespace bench::floor_detail {

using namespace scc;

inline std::uint64_t g_handled = 0;

inline void handle_result(u32 number, u32 result, const u8* value) {
    g_handled += number + result + value[0];
}

inline void (*volatile g_handler)(u32, u32, const u8*) = handle_result;

inline pthread_rwlock_t g_search = PTHREAD_RWLOCK_INITIALIZER;

// As the library does: a lock that is free is taken by trying, which takes less.
class guard {
  public:
    explicit guard(pthread_rwlock_t& lock) : lock_(lock) {
        if (pthread_rwlock_trywrlock(&lock) != 0) {
            pthread_rwlock_wrlock(&lock);
        }
    }
    ~guard() { pthread_rwlock_unlock(&lock_); }
    guard(const guard&) = delete;
    guard& operator=(const guard&) = delete;

  private:
    pthread_rwlock_t& lock_;
};

// A result is an item of 16 bytes after its head: the request's number, the result. As the library does, the
// keepers below take so many of them under one lock.
inline constexpr u16 results_a_lock = 32;

struct item_result {
    u32 number;
    u32 result;
};

// Reads up to results_a_lock results and moves on past them.
inline std::size_t read_results(const u8*& at, u16& items, item_result* out) {
    const std::size_t count = std::min(items, results_a_lock);
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = {load<u32>(at, 8), load<u32>(at, 12)};
        at += 8 + load<u32>(at);
    }
    items = static_cast<u16>(items - count);
    return count;
}

// Where the values of the outstanding requests are: nowhere, and no result is looked at.
struct no_values {
    no_values(std::uint32_t /*value_bytes*/, std::uint64_t /*outstanding*/) {}
    void keep(u32 /*number*/, const u8* /*value*/) {}
    void deliver(const u8* /*body*/, u16 /*items*/) {}
};

// The number of each request is its place: no allocation, no search.
class values_in_slots {
  public:
    values_in_slots(std::uint32_t value_bytes, std::uint64_t outstanding)
        : bytes_(value_bytes), places_(std::bit_ceil(outstanding)), values_(places_ * value_bytes) {}

    void keep(u32 number, const u8* value) { std::copy_n(value, bytes_, of(number)); }

    void deliver(const u8* body, u16 items) {
        while (items > 0) {
            { const guard search(g_search); }
            item_result results[results_a_lock];
            const std::size_t count = read_results(body, items, results);
            for (std::size_t i = 0; i < count; ++i) {
                g_handler(results[i].number, results[i].result, of(results[i].number));
            }
        }
    }

  private:
    u8* of(u32 number) { return &values_[(number & (places_ - 1)) * bytes_]; }

    std::size_t bytes_;
    std::size_t places_;
    std::vector<u8> values_;
};

struct kept_block {
    list_node link;
    u64 number;

    u8* value() { return reinterpret_cast<u8*>(this + 1); }
};

inline u64 number_of(const list_node* node) {
    return reinterpret_cast<const kept_block*>(node)->number;
}

// Each in a block of its own, in the library's structures: a ring to the receiving thread, which keeps the
// blocks in a hash table and returns them through another ring. When another thread may drop a request, a
// block that was found is taken by an exchange.
template <bool Shared>
class values_in_blocks {
  public:
    values_in_blocks(std::uint32_t value_bytes, std::uint64_t /*outstanding*/) : bytes_(value_bytes) {
        table_.reset();
    }

    void keep(u32 number, const u8* value) {
        kept_block* block = nullptr;
        if (!spare_.pop(block)) {
            block = static_cast<kept_block*>(std::malloc(sizeof(kept_block) + bytes_));
        }
        block->number = number;
        std::copy_n(value, bytes_, block->value());
        if (!given_.push(block)) {
            const guard search(g_search);
            insert_given();
            table_.insert(&block->link);
        }
    }

    void deliver(const u8* body, u16 items) {
        while (items > 0) {
            item_result results[results_a_lock];
            kept_block* found[results_a_lock];
            const std::size_t count = read_results(body, items, results);
            {
                const guard search(g_search);
                insert_given();
                for (std::size_t i = 0; i < count; ++i) {
                    found[i] = take(results[i].number);
                    if constexpr (Shared) {
                        hand_[i].store(found[i], std::memory_order_relaxed);
                    }
                }
            }
            for (std::size_t i = 0; i < count; ++i) {
                if constexpr (Shared) {
                    found[i] = hand_[i].exchange(nullptr);
                }
                g_handler(results[i].number, results[i].result, found[i]->value());
            }
            for (std::size_t i = 0; i < count; ++i) {
                if (!spare_.push(found[i])) {
                    std::free(found[i]);
                }
            }
        }
    }

  private:
    void insert_given() {
        for (kept_block* block = nullptr; given_.pop(block);) {
            table_.insert(&block->link);
        }
    }

    kept_block* take(u32 number) {
        list_node* const node =
            table_.find(number, [number](const list_node* one) { return number_of(one) == number; });
        table_.erase(node);
        return reinterpret_cast<kept_block*>(node);
    }

    std::size_t bytes_;
    std::array<std::atomic<kept_block*>, results_a_lock> hand_{};
    handoff_ring<kept_block*, tuning::saved_calls_max> given_;
    handoff_ring<kept_block*, tuning::spare_blocks_max> spare_;
    bucket_table<number_of, 8192> table_;  // guarded by g_search; as large as the library's has grown
};

}  // namespace bench::floor_detail
