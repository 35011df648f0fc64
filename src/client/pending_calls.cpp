// See pending_calls.h. Blocks of delivered calls are kept for the next requests of the same size, up to a
// bound: the receive thread then frees nothing and the requesting thread allocates nothing, which is most
// of what an allocator shared by two threads costs. The checker gives them back once requests pause.
#include "client/pending_calls.h"

#include <cstdlib>
#include <cstring>

#include "client/control_block.h"
#include "client/log.h"
#include "msg/result_codes.h"
#include "util/bucket_table.h"

using namespace scc;

namespace scc {
namespace {

constexpr std::size_t first_buckets = 1024;
constexpr u32 spare_blocks_max = 8192;

u64 hash_of(const list_node* node) {
    return reinterpret_cast<const pending_call*>(node)->call_id;
}

}  // namespace
}  // namespace scc

extern "C" {
constinit pthread_rwlock_t scc_call_data_lock = PTHREAD_RWLOCK_INITIALIZER;
constinit bucket_table<hash_of, first_buckets> g_scc_lib_call_lst{};
}

namespace scc {
namespace {

struct spare_blocks {
    pending_call* first = nullptr;  // chained through link.next
    i32 data_bytes = 0;             // all are of this size
    u32 count = 0;
    bool used_since_check = false;
};

// scc_call_data_lock guards both.
constinit spare_blocks g_spare{};

void free_spare_blocks() {
    while (g_spare.first != nullptr) {
        pending_call* block = g_spare.first;
        g_spare.first = reinterpret_cast<pending_call*>(block->link.next);
        std::free(block);
    }
    g_spare.count = 0;
}

// The lock for a moment: the two threads that share it hold it so shortly that looking again is cheaper
// than sleeping.
class brief_guard {
  public:
    brief_guard() {
        constexpr int looks = 200;
        for (int i = 0; i < looks; ++i) {
            if (pthread_rwlock_trywrlock(&scc_call_data_lock) == 0) {
                return;
            }
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        }
        pthread_rwlock_wrlock(&scc_call_data_lock);
    }
    ~brief_guard() {
        pthread_rwlock_unlock(&scc_call_data_lock);
    }
    brief_guard(const brief_guard&) = delete;
    brief_guard& operator=(const brief_guard&) = delete;
};

// Fetches the block that the next request will fill; thousands of them do not stay in the cache.
void prefetch_block(const pending_call* call, i32 data_bytes) {
    if (call == nullptr) {
        return;
    }
    constexpr std::size_t line_bytes = 64;
    constexpr std::size_t most = 1024;
    const std::size_t block = pending_call::head_bytes + static_cast<std::size_t>(data_bytes);
    for (std::size_t at = 0; at < block && at < most; at += line_bytes) {
        __builtin_prefetch(reinterpret_cast<const u8*>(call) + at, 1);
    }
}

// scc_call_data_lock held.
pending_call* take_spare(i32 data_bytes) {
    pending_call* block = g_spare.data_bytes == data_bytes ? g_spare.first : nullptr;
    if (block != nullptr) {
        g_spare.first = reinterpret_cast<pending_call*>(block->link.next);
        --g_spare.count;
        g_spare.used_since_check = true;
        prefetch_block(g_spare.first, data_bytes);
    }
    return block;
}

void fill(pending_call& call, u32 call_id, u32 kind, const void* data, i32 len) {
    call.call_id = call_id;
    call.kind = kind;
    call.data_bytes = len;
    if (len > 0) {
        std::memcpy(call.data(), data, static_cast<std::size_t>(len));
    }
}

// Saves into a kept block; false when there is none of this size.
bool save_in_spare(u32 call_id, u32 kind, const void* data, i32 len) {
    const brief_guard guard;
    pending_call* call = take_spare(len > 0 ? len : 0);
    if (call == nullptr) {
        return false;
    }
    fill(*call, call_id, kind, data, len);
    g_scc_lib_call_lst.insert(&call->link);
    return true;
}

}  // namespace
}  // namespace scc

extern "C" {

u32 _scc_lib_call_id_get() {
    return g_scc_client_cb.last_call_id.fetch_add(1, relaxed) + 1;
}

u32 _scc_lib_save_call_data(u32 call_id, u32 kind, const void* data, int len) {
    if (save_in_spare(call_id, kind, data, len)) {
        return result::ok;
    }
    const std::size_t data_bytes = len > 0 ? static_cast<std::size_t>(len) : 0;
    auto* call = static_cast<pending_call*>(std::malloc(pending_call::head_bytes + data_bytes));
    if (call == nullptr) {
        SCC_LOG("scclib alloc memory failed.");
        return result::no_memory;
    }
    fill(*call, call_id, kind, data, len);
    const brief_guard guard;
    g_scc_lib_call_lst.insert(&call->link);
    return result::ok;
}

void _scc_lib_del_call_data(u32 call_id) {
    std::free(take_pending_call(call_id));
}
}

namespace scc {

namespace {

// scc_call_data_lock held.
pending_call* unlink_call(u32 call_id) {
    list_node* node = g_scc_lib_call_lst.find(call_id, [call_id](const list_node* candidate) {
        return reinterpret_cast<const pending_call*>(candidate)->call_id == call_id;
    });
    if (node != nullptr) {
        g_scc_lib_call_lst.erase(node);
    }
    return reinterpret_cast<pending_call*>(node);
}

// Keeps the block for the next request of its size; false when it is to be freed. scc_call_data_lock held.
bool keep_block(pending_call* call) {
    const i32 data_bytes = call->data_bytes > 0 ? call->data_bytes : 0;
    if (g_spare.count == 0) {
        g_spare.data_bytes = data_bytes;
    }
    if (g_spare.data_bytes != data_bytes || g_spare.count == spare_blocks_max) {
        return false;
    }
    call->link.next = reinterpret_cast<list_node*>(g_spare.first);
    g_spare.first = call;
    ++g_spare.count;
    g_spare.used_since_check = true;
    return true;
}

}  // namespace

pending_call* take_pending_call(u32 call_id) {
    const brief_guard guard;
    return unlink_call(call_id);
}

void take_pending_calls(std::span<const u32> ids, std::span<pending_call*> calls) {
    const brief_guard guard;
    // A million calls lie all over the memory: their cache misses overlap this way.
    for (const u32 id : ids) {
        g_scc_lib_call_lst.prefetch_bucket(id);
    }
    for (const u32 id : ids) {
        g_scc_lib_call_lst.prefetch_first(id);
    }
    for (std::size_t i = 0; i < ids.size(); ++i) {
        calls[i] = unlink_call(ids[i]);
    }
}

void release_pending_call(pending_call* call) {
    release_pending_calls({&call, 1});
}

void release_pending_calls(std::span<pending_call* const> calls) {
    pending_call* surplus = nullptr;
    {
        const brief_guard guard;
        for (pending_call* call : calls) {
            if (call != nullptr && !keep_block(call)) {
                call->link.next = reinterpret_cast<list_node*>(surplus);
                surplus = call;
            }
        }
    }
    while (surplus != nullptr) {
        pending_call* next = reinterpret_cast<pending_call*>(surplus->link.next);
        std::free(surplus);
        surplus = next;
    }
}

std::size_t pending_calls() {
    const write_guard guard(scc_call_data_lock);
    return g_scc_lib_call_lst.size();
}

void free_pending_calls() {
    const write_guard guard(scc_call_data_lock);
    g_scc_lib_call_lst.clear([](list_node* node) { std::free(node); });
    free_spare_blocks();
}

void init_pending_calls() {
    free_pending_calls();
    const write_guard guard(scc_call_data_lock);
    g_scc_lib_call_lst.reset();
}

void grow_pending_index() {
    const write_guard guard(scc_call_data_lock);
    g_scc_lib_call_lst.grow_if_crowded();
}

void free_idle_blocks() {
    const write_guard guard(scc_call_data_lock);
    if (!g_spare.used_since_check) {
        free_spare_blocks();
    }
    g_spare.used_since_check = false;
}

}  // namespace scc
