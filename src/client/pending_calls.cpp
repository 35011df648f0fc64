// See pending_calls.h. Two rings connect the requesting and the receive thread, so that neither waits for the
// other. A saved call passes through one; the next lookup moves it to the index. The block of a delivered
// call returns through the other, for a request of the same size. So the requesting thread allocates nothing
// and the receive thread frees nothing, which saves most of the cost of an allocator shared by two threads.
// The checker frees the returned blocks once requests pause.
#include "client/pending_calls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "client/control_block.h"
#include "client/growth.h"
#include "client/log.h"
#include "client/tuning.h"
#include "msg/result_codes.h"
#include "util/bucket_table.h"
#include "util/handoff_ring.h"
#include "util/prefetch.h"

using namespace scc;

namespace scc {
namespace {

u64 hash_of(const list_node* node) {
    return reinterpret_cast<const pending_call*>(node)->call_id;
}

using call_index = bucket_table<hash_of, tuning::first_call_buckets>;

}  // namespace
}  // namespace scc

extern "C" {
constinit pthread_rwlock_t scc_call_data_lock = PTHREAD_RWLOCK_INITIALIZER;
constinit call_index g_scc_lib_call_lst SCC_GUARDED_BY(calls_lock){};
}

namespace scc {
namespace {

// Saved and not yet in the index. Pushed under scc_lib_lock, popped under scc_call_data_lock.
constinit handoff_ring<pending_call*, tuning::saved_calls_max> g_incoming{};
// Blocks of delivered calls. Pushed under scc_call_data_lock, popped under scc_lib_lock.
constinit handoff_ring<pending_call*, tuning::spare_blocks_max> g_spare{};

// The calls in hand. scc_call_data_lock guards the ids and the size; a call is taken by an atomic exchange of
// its slot, without the lock.
struct hand {
    std::array<std::atomic<pending_call*>, calls_in_hand::most> calls;
    std::array<u32, calls_in_hand::most> ids SCC_GUARDED_BY(calls_lock);
    std::size_t size SCC_GUARDED_BY(calls_lock);
};

constinit hand g_hand{};

class SCC_SCOPED_CAPABILITY brief_guard {
  public:
    brief_guard() SCC_ACQUIRE(calls_lock) {
        if (!try_lock_briefly(calls_lock)) {
            pthread_rwlock_wrlock(&scc_call_data_lock);
        }
    }
    ~brief_guard() SCC_RELEASE() { unlock(calls_lock); }
    brief_guard(const brief_guard&) = delete;
    brief_guard& operator=(const brief_guard&) = delete;
};

std::size_t data_bytes_of(i32 len) {
    return len > 0 ? static_cast<std::size_t>(len) : 0;
}

// A returned block of this size, or null. A block of another size is freed, so the ring adapts.
pending_call* take_spare(i32 len) SCC_REQUIRES(lib_lock) {
    pending_call* block = nullptr;
    if (!g_spare.pop(block)) {
        return nullptr;
    }
    if (pending_call* later = nullptr; g_spare.peek(tuning::spare_blocks_ahead, later)) {
        prefetch_for_writing(
            later, std::min(pending_call::head_bytes + data_bytes_of(len), tuning::spare_prefetch_max_bytes));
    }
    if (block->data_bytes != len) [[unlikely]] {
        std::free(block);
        return nullptr;
    }
    return block;
}

// Not inlined, so that a request which finds a spare block saves few registers.
[[gnu::noinline]] pending_call* allocate_call(i32 len) {
    // NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI): the head alone has 32 bytes.
    auto* call = static_cast<pending_call*>(std::malloc(pending_call::head_bytes + data_bytes_of(len)));
    if (call == nullptr) {
        SCC_LOG_FROM("_scc_lib_save_call_data", "scclib alloc memory failed.");
    }
    return call;
}

// Moves the saved calls to the index.
void index_incoming() SCC_REQUIRES(calls_lock) {
    for (pending_call* call = nullptr; g_incoming.pop(call);) {
        if (pending_call* later = nullptr; g_incoming.peek(tuning::saved_calls_ahead, later)) {
            prefetch_for_writing(later, pending_call::head_bytes);
        }
        g_scc_lib_call_lst.insert(&call->link);
    }
}

[[gnu::noinline]] void index_call(pending_call* call) {
    const brief_guard guard;
    index_incoming();
    g_scc_lib_call_lst.insert(&call->link);
}

// Null and logged without memory. A length below 0 is kept, but has no data.
pending_call* new_call_of(u32 call_id, u32 kind, i32 len) SCC_REQUIRES(lib_lock) {
    pending_call* call = take_spare(len);
    if (call == nullptr) [[unlikely]] {
        call = allocate_call(len);
        if (call == nullptr) {
            return nullptr;
        }
    }
    call->call_id = call_id;
    call->kind = kind;
    call->data_bytes = len;
    return call;
}

u32 save(u32 call_id, u32 kind, const value_parts& data, i32 len) SCC_REQUIRES(lib_lock) {
    pending_call* const call = new_call_of(call_id, kind, len);
    if (call == nullptr) {
        return result::no_memory;
    }
    data.copy_to(call->data());
    keep_call(call);
    return result::ok;
}

}  // namespace

pending_call* new_call(u32 call_id, u32 kind, std::size_t data_bytes) {
    return new_call_of(call_id, kind, static_cast<i32>(data_bytes));
}

void keep_call(pending_call* call) {
    if (!g_incoming.push(call)) [[unlikely]] {
        index_call(call);
    }
}

u32 save_call(u32 call_id, u32 kind, const value_parts& data) {
    return save(call_id, kind, data, static_cast<i32>(data.size()));
}

}  // namespace scc

extern "C" {

u32 _scc_lib_call_id_get() {
    const u32 call_id = g_scc_client_cb.last_call_id.load(relaxed) + 1;
    g_scc_client_cb.last_call_id.store(call_id, relaxed);
    return call_id;
}

u32 _scc_lib_save_call_data(u32 call_id, u32 kind, const void* data, int len) {
    return save(call_id, kind, value_of(data, len), len);
}

void _scc_lib_del_call_data(u32 call_id) {
    std::free(take_pending_call(call_id));
}
}

namespace scc {

namespace {

pending_call* unlink_call(u32 call_id) SCC_REQUIRES(calls_lock) {
    list_node* node = g_scc_lib_call_lst.find(call_id, [call_id](const list_node* candidate) {
        return reinterpret_cast<const pending_call*>(candidate)->call_id == call_id;
    });
    if (node != nullptr) {
        g_scc_lib_call_lst.erase(node);
    }
    return reinterpret_cast<pending_call*>(node);
}

// The oldest call of this id in hand, which is older than those of the index.
pending_call* take_from_hand(u32 call_id) SCC_REQUIRES(calls_lock) {
    for (std::size_t i = 0; i < g_hand.size; ++i) {
        if (g_hand.ids[i] == call_id) {
            if (pending_call* call = g_hand.calls[i].exchange(nullptr); call != nullptr) {
                return call;
            }
        }
    }
    return nullptr;
}

}  // namespace

pending_call* take_pending_call(u32 call_id) {
    const brief_guard guard;
    if (pending_call* call = take_from_hand(call_id); call != nullptr) {
        return call;
    }
    index_incoming();
    return unlink_call(call_id);
}

calls_in_hand::calls_in_hand(std::span<const u32> ids) : ids_(ids), holds_(false) {
    const brief_guard guard;
    if (g_hand.size != 0 || ids.empty()) {
        return;
    }
    holds_ = true;
    index_incoming();
    // Many pending calls are spread over memory; prefetching overlaps their cache misses.
    for (const u32 id : ids) {
        g_scc_lib_call_lst.prefetch_bucket(id);
    }
    for (const u32 id : ids) {
        g_scc_lib_call_lst.prefetch_first(id);
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        g_hand.ids[i] = ids[i];
        g_hand.calls[i].store(unlink_call(ids[i]), std::memory_order_relaxed);
    }
    g_hand.size = ids.size();
}

calls_in_hand::~calls_in_hand() {
    if (!holds_) {
        return;
    }
    const brief_guard guard;
    // Calls are left when the registration ended meanwhile; they are freed with its data. A slot that was
    // emptied stays empty, so it needs no exchange.
    for (std::size_t i = 0; i < g_hand.size; ++i) {
        std::atomic<pending_call*>& slot = g_hand.calls[i];
        pending_call* call =
            slot.load(std::memory_order_relaxed) == nullptr ? nullptr : slot.exchange(nullptr);
        if (call != nullptr) {
            g_scc_lib_call_lst.insert(&call->link);
        }
    }
    g_hand.size = 0;
}

pending_call* calls_in_hand::take(std::size_t i) {
    pending_call* call = holds_ ? g_hand.calls[i].exchange(nullptr) : nullptr;
    // The handler of an earlier result may have made the call.
    return call != nullptr ? call : take_pending_call(ids_[i]);
}

const pending_call* calls_in_hand::peek(std::size_t i) const {
    return holds_ && i < ids_.size() ? g_hand.calls[i].load(std::memory_order_relaxed) : nullptr;
}

void release_pending_call(pending_call* call) {
    release_pending_calls({&call, 1});
}

void release_pending_calls(std::span<pending_call* const> calls) {
    std::size_t kept = 0;
    {
        const brief_guard guard;
        while (kept < calls.size() && (calls[kept] == nullptr || g_spare.push(calls[kept]))) {
            ++kept;
        }
    }
    for (pending_call* surplus : calls.subspan(kept)) {
        std::free(surplus);
    }
}

std::size_t pending_calls() {
    const write_guard guard(calls_lock);
    index_incoming();
    std::size_t count = g_scc_lib_call_lst.size();
    for (std::size_t i = 0; i < g_hand.size; ++i) {
        count += g_hand.calls[i].load(std::memory_order_relaxed) != nullptr ? 1 : 0;
    }
    return count;
}

void free_pending_calls() {
    const write_guard guard(calls_lock);
    for (std::size_t i = 0; i < g_hand.size; ++i) {
        std::free(g_hand.calls[i].exchange(nullptr));
    }
    index_incoming();
    g_scc_lib_call_lst.clear([](list_node* node) { std::free(node); });
}

void init_pending_calls() {
    free_pending_calls();
    const write_guard guard(calls_lock);
    g_scc_lib_call_lst.reset();
}

void grow_pending_index() {
    grow_in_steps<call_index>([](auto work) {
        const write_guard guard(calls_lock);
        index_incoming();
        work(g_scc_lib_call_lst);
        return true;
    });
}

void free_idle_blocks() {
    static constinit std::size_t taken_before = 0;  // only the checker calls this
    const std::size_t taken = g_spare.taken();
    const bool paused = taken == taken_before;
    taken_before = taken;
    // A query holds the lock until the daemon answers; a later pass will do.
    if (!paused || g_spare.empty() || !try_lock(lib_lock)) {
        return;
    }
    for (pending_call* block = nullptr; g_spare.pop(block);) {
        std::free(block);
    }
    unlock(lib_lock);
}

}  // namespace scc
