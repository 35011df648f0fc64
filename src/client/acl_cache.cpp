// See acl_cache.h. The 512 buckets and their chains are what the debug display shows; an ACL is found through
// an index, at a cost that does not grow with the cache.
#include "client/acl_cache.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "client/growth.h"
#include "client/kinds.h"
#include "client/log.h"
#include "client/tuning.h"
#include "msg/bytes.h"
#include "msg/result_codes.h"
#include "util/key_index.h"

using namespace scc;

extern "C" {
constinit pthread_rwlock_t scc_acl_lock = PTHREAD_RWLOCK_INITIALIZER;
}

namespace scc {
namespace {

constexpr i32 saved_ace_bytes = sizeof(scc_acl_key) + sizeof(scc_ace_record);

// The key without the class.
struct acl_identity {
    u32 vdev_id;
    u32 app_type;
    u32 acl_id;

    bool operator==(const acl_identity&) const = default;
};

acl_identity identity_of(const scc_acl_key& key) {
    return {key.vdev_id, key.app_type, key.acl_id};
}

// Eight ACLs with successive ids lie side by side, since they are mostly used one after another: with many
// ACLs, a look-up elsewhere waits for memory.
u64 mixed(const acl_identity& id) {
    constexpr u32 together_bits = 3;
    u64 hash = (id.acl_id >> together_bits) * 0x9E3779B97F4A7C15ULL;
    hash ^= (u64{id.app_type} << 32U | id.vdev_id) * 0xC2B2AE3D27D4EB4FULL;
    hash ^= hash >> 29U;
    return hash << together_bits | (id.acl_id & ((1U << together_bits) - 1));
}

using acl_index = key_index<acl_identity, cached_acl, mixed, tuning::first_acl_slots>;

struct acl_cache {
    std::array<list_node, acl_buckets> buckets;
    u64 count;
    bool ready;
    acl_index index;
};

}  // namespace

struct client_data {
    std::atomic<u64> capability;
    acl_cache cache SCC_GUARDED_BY(acl_lock);
    std::atomic<u32> revision;     // written under scc_acl_lock
    std::atomic<bool> is_growing;  // the index does, or should; written under scc_acl_lock
};

}  // namespace scc

extern "C" {
constinit client_data g_scc_client_data{};
}

namespace scc {
namespace {

acl_cache& cache() SCC_REQUIRES(acl_lock) {
    return g_scc_client_data.cache;
}

void free_acl(cached_acl* acl) SCC_REQUIRES(acl_lock) {
    free_aces(*acl);
    list_del(&acl->bucket_link);
    cache().index.erase(identity_of(acl->key));
    --cache().count;
    std::free(acl);
}

void note_growth() SCC_REQUIRES(acl_lock) {
    const acl_index& index = cache().index;
    g_scc_client_data.is_growing.store(index.is_growing() || index.buckets_wanted() != 0,
                                       std::memory_order_relaxed);
}

// Logs when there is no such ACL.
cached_acl* find_acl(const scc_acl_key& key, const char* function) SCC_REQUIRES(acl_lock) {
    cached_acl* acl = _scc_acl_get(&key);
    if (acl == nullptr) {
        SCC_LOG_FROM(function, "specific acl not found!!!");
    }
    return acl;
}

// How much saved data a cache change of this kind reads.
std::size_t bytes_needed(u32 call_kind) {
    switch (call_kind) {
        case kind::acl_create:
        case kind::acl_delete:
            return sizeof(scc_acl_key);
        case kind::acl_add_ace:
        case kind::acl_delete_ace:
            return saved_ace_bytes;
        case kind::acl_resequence:
            return sizeof(scc_acl_key) + 2 * sizeof(u32);
        default:
            return SIZE_MAX;
    }
}

}  // namespace

void prepare_acl_buckets() {
    if (cache().ready) {
        return;
    }
    for (list_node& head : cache().buckets) {
        INIT_LIST_HEAD(&head);
    }
    cache().index.reset();
    cache().ready = true;
}

void init_acl_cache() {
    free_acl_cache();
}

void free_acl_cache() {
    {
        const write_guard guard(acl_lock);
        prepare_acl_buckets();
        for (list_node& head : cache().buckets) {
            while (!list_empty(&head)) {
                free_acl(reinterpret_cast<cached_acl*>(head.next));  // NOLINT(clang-analyzer-unix.Malloc)
            }
        }
        cache().index.reset();
        g_scc_client_data.revision.fetch_add(1, std::memory_order_relaxed);
    }
    set_capability_word(0);
}

void grow_acl_index() {
    // Read without the lock, which a display of many ACLs holds for long.
    if (!g_scc_client_data.is_growing.load(std::memory_order_relaxed)) {
        return;
    }
    grow_in_steps<acl_index>([](auto work) {
        if (!try_lock_briefly(acl_lock)) {
            return false;
        }
        work(cache().index);
        note_growth();
        unlock(acl_lock);
        return true;
    });
}

u32 acl_cache_revision() {
    return g_scc_client_data.revision.load(std::memory_order_relaxed);
}

u64 cached_acl_count() {
    return cache().count;
}

list_node* acl_bucket(u32 i) {
    return &cache().buckets[i];
}

namespace {

// The changes. Each logs in the name of its function with C linkage.

void add_acl(const scc_acl_key* key) SCC_REQUIRES(acl_lock) {
    constexpr const char* function = "_scc_lib_acl_add";
    if (_scc_acl_get(key) != nullptr) {
        SCC_LOG_FROM(function, "acl already exist!!!");
        return;
    }
    auto* acl = static_cast<cached_acl*>(std::malloc(sizeof(cached_acl)));
    if (acl == nullptr || !cache().index.insert(identity_of(*key), acl)) {
        SCC_LOG_FROM(function, "alloc memory failed!!!");
        std::free(acl);
        return;
    }
    std::memset(acl, 0, sizeof *acl);
    acl->key = *key;
    note_growth();
    INIT_LIST_HEAD(&acl->aces);
    list_add_tail(&acl->bucket_link, &cache().buckets[_acl_hash_idx_get(key)]);
    ++cache().count;
}

void delete_acl(const scc_acl_key* key) SCC_REQUIRES(acl_lock) {
    if (cached_acl* acl = find_acl(*key, "_scc_lib_acl_del"); acl != nullptr) {
        free_acl(acl);
    }
}

void add_ace(const scc_acl_key* key, const scc_ace_record* ace) SCC_REQUIRES(acl_lock) {
    constexpr const char* function = "_scc_lib_ace_add";
    cached_acl* acl = find_acl(*key, function);
    if (acl == nullptr) {
        return;
    }
    cached_ace* copy = copy_of(ace);
    if (copy == nullptr) {
        SCC_LOG_FROM(function, "alloc memory failed!!!");
        return;
    }
    insert_in_order(*acl, copy);
}

void delete_ace(const scc_acl_key* key, const scc_ace_record* ace) SCC_REQUIRES(acl_lock) {
    constexpr const char* function = "_scc_lib_ace_del";
    cached_acl* acl = find_acl(*key, function);
    if (acl == nullptr) {
        return;
    }
    // The record may be unaligned in saved data.
    const u32 sn = load<u32>(ace, offsetof(scc_ace_record, sn));
    const u32 ace_id = load<u32>(ace, offsetof(scc_ace_record, ace_id));
    cached_ace* first = find_ace(*acl, sn);
    for (list_node* link = first == nullptr ? &acl->aces : &first->record.link; link != &acl->aces;
         link = link->next) {
        cached_ace* candidate = ace_of_link(link);
        if (candidate->record.sn == sn && candidate->record.ace_id == ace_id) {
            free_ace(*acl, candidate);
            SCC_LOG_FROM(function, "delete specific ace done.");
            return;
        }
        if (acl->out_of_order == 0 && candidate->record.sn != sn) {
            break;
        }
    }
    SCC_LOG_FROM(function, "no such ace!!!");
}

void resequence(const scc_acl_key* key, u32 sn_start, u32 sn_inc) SCC_REQUIRES(acl_lock) {
    constexpr const char* function = "_scc_lib_acl_reseq";
    if (key == nullptr || static_cast<i32>(sn_start) < 1 || static_cast<i32>(sn_inc) < 1) {
        SCC_LOG_FROM(function, "scclib param invalid. acl_info:%p, sn_start:%d, sn_inc:%d.",
                     static_cast<const void*>(key), sn_start, sn_inc);
        return;
    }
    cached_acl* acl = find_acl(*key, function);
    if (acl == nullptr) {
        return;
    }
    renumber(*acl, sn_start, sn_inc);
    acl->sn_start = sn_start;
    acl->sn_inc = sn_inc;
}

// Whether the call changes the cache; logs when it does not.
bool is_cache_change(const pending_call& call) {
    const auto saved = static_cast<std::size_t>(call.data_bytes > 0 ? call.data_bytes : 0);
    if (saved >= bytes_needed(call.kind)) {
        return true;
    }
    SCC_LOG_FROM("_scc_lib_acl_update", "unknown scclib call id(%d)", call.kind);
    return false;
}

void update(const pending_call& call) SCC_REQUIRES(acl_lock) {
    const u8* data = call.data();
    const auto key = load<scc_acl_key>(data);
    const auto* ace = reinterpret_cast<const scc_ace_record*>(data + sizeof key);
    switch (call.kind) {
        case kind::acl_create:
            return add_acl(&key);
        case kind::acl_delete:
            return delete_acl(&key);
        case kind::acl_add_ace:
            return add_ace(&key, ace);
        case kind::acl_delete_ace:
            return delete_ace(&key, ace);
        default:
            return resequence(&key, load<u32>(data, 16), load<u32>(data, 20));
    }
}

template <class... Records>
void change_cache(const char* function, void (*change)(const Records*...), const Records*... records) {
    const bool is_complete = (... && (records != nullptr));
    if (!is_complete) {
        SCC_LOG_FROM(function, "invalid input param!!!");
        return;
    }
    const write_guard guard(acl_lock);
    change(records...);
}

}  // namespace

bool take_into_cache(pending_call* call, u32 revision) {
    if (!is_cache_change(*call)) {
        return false;
    }
    const write_guard guard(acl_lock);
    if (revision != acl_cache_revision()) {
        return false;
    }
    if (call->kind != kind::acl_add_ace || call->data_bytes != saved_ace_bytes) {
        update(*call);
        return false;
    }
    cached_acl* acl = find_acl(load<scc_acl_key>(call->data()), "_scc_lib_ace_add");
    if (acl == nullptr) {
        return false;
    }
    bool takes_block = false;
    insert_in_order(*acl, ace_of_call(call, takes_block));
    return takes_block;
}

u64 capability_word() {
    return g_scc_client_data.capability.load(std::memory_order_relaxed);
}

void set_capability_word(u64 word) {
    g_scc_client_data.capability.store(word, std::memory_order_relaxed);
}

}  // namespace scc

extern "C" {

u32 _scc_lib_acl_info_check(const scc_acl_key* key) {
    if (key == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    const auto acl_id = static_cast<i32>(key->acl_id);
    if (acl_id < 1 || acl_id > limits::acl_id_max) {
        SCC_LOG("acl id is invalid (<1 or >32768).");
        return result::invalid;
    }
    if (key->app_type == 0 || key->app_type > limits::app_type_max) {
        SCC_LOG("acl app_type(%d) is invalid", key->app_type);
        return result::invalid;
    }
    return result::ok;
}

// Folds the sum of the key's first 12 bytes, without the class.
u32 _acl_hash_idx_get(const scc_acl_key* key) {
    u64 sum = 0;
    for (std::size_t i = 0; i < offsetof(scc_acl_key, acl_class); ++i) {
        sum += load<u8>(key, i);
    }
    return static_cast<u32>((sum ^ sum >> 9U ^ sum >> 18U ^ sum >> 27U) & 0x1FFU);
}

cached_acl* _scc_acl_get(const scc_acl_key* key) {
    return cache().index.find(identity_of(*key));
}

void _scc_lib_acl_add(const scc_acl_key* key) {
    change_cache(__func__, add_acl, key);
}

void _scc_lib_acl_del(const scc_acl_key* key) {
    change_cache(__func__, delete_acl, key);
}

void _scc_lib_ace_add(const scc_acl_key* key, const scc_ace_record* ace) {
    change_cache(__func__, add_ace, key, ace);
}

void _scc_lib_ace_del(const scc_acl_key* key, const scc_ace_record* ace) {
    change_cache(__func__, delete_ace, key, ace);
}

void _scc_lib_acl_reseq(const scc_acl_key* key, u32 sn_start, u32 sn_inc) {
    const write_guard guard(acl_lock);
    resequence(key, sn_start, sn_inc);
}

void _scc_lib_acl_update(const pending_call* call) {
    if (call != nullptr && is_cache_change(*call)) {
        const write_guard guard(acl_lock);
        update(*call);
    }
}
}
