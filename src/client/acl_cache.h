// The client's copy of the ACLs that the daemon confirmed. Filled from results, read by the query calls
// and the debug dump; everything under scc_acl_lock, which is taken inside scc_lib_lock, never around it.
#pragma once

#include <cstddef>

#include "client/locks.h"
#include "client/pending_calls.h"
#include "msg/protocol.h"
#include "scclib.h"
#include "util/list.h"
#include "util/rbtree.h"

namespace scc {

// One cached ACE: its place in the ordering tree, and the record, whose first 16 bytes link the list. It is
// the block of the call that added it, whose head and key give way to the place, so that nothing is copied.
struct cached_ace {
    rb_node place;
    u8 unused[pending_call::head_bytes - sizeof(rb_node)];
    scc_acl_key key;
    scc_ace_record record;
};

struct cached_acl {
    list_node bucket_link;  // chain of the hash bucket, in the order of creation
    scc_acl_key key;
    list_node aces;  // of cached_ace::record.link, ascending by sn
    u64 ace_count;
    u32 sn_start;
    u32 sn_inc;
    rb_root places;    // of cached_ace::place, in the order of the list
    u64 out_of_order;  // 1 once a resequence put numbers out of ascending order
    u8 reserve[152];
};

static_assert(sizeof(cached_acl) == 232);
static_assert(sizeof(scc_ace_record) == record::ace);
static_assert(offsetof(cached_ace, key) == pending_call::head_bytes);
static_assert(offsetof(cached_ace, record) == pending_call::head_bytes + record::acl_key);
static_assert(offsetof(scc_ace_record, sn) == 220);
static_assert(offsetof(scc_ace_record, ace_id) == 224);

inline constexpr u32 acl_buckets = 512;

[[nodiscard]] inline cached_ace* ace_of_link(list_node* link) {
    return reinterpret_cast<cached_ace*>(reinterpret_cast<u8*>(link) - offsetof(cached_ace, record));
}

void init_acl_cache();
// Makes the buckets empty lists before the first start. scc_acl_lock held.
void prepare_acl_buckets();
void free_acl_cache();
[[nodiscard]] u64 cached_acl_count();        // scc_acl_lock held
[[nodiscard]] list_node* acl_bucket(u32 i);  // scc_acl_lock held
// The first cached ACE with this number, in list order; null when there is none. scc_acl_lock held.
[[nodiscard]] cached_ace* find_ace(cached_acl& acl, u32 sn);

// Goes up each time the cache is emptied.
[[nodiscard]] u32 acl_cache_revision();
// What a confirmed call changes in the cache, as _scc_lib_acl_update, unless the cache was emptied since the
// revision; true when the call's block has become the cache's, so that the caller must not release it.
[[nodiscard]] bool take_into_cache(pending_call* call, u32 revision);

[[nodiscard]] u64 capability_word();
void set_capability_word(u64 word);

}  // namespace scc

extern "C" {
[[nodiscard]] scc::u32 _scc_lib_acl_info_check(const scc_acl_key* key);
[[nodiscard]] scc::u32 _acl_hash_idx_get(const scc_acl_key* key);
[[nodiscard]] scc::cached_acl* _scc_acl_get(const scc_acl_key* key);
void _scc_lib_acl_add(const scc_acl_key* key);
void _scc_lib_acl_del(const scc_acl_key* key);
void _scc_lib_ace_add(const scc_acl_key* key, const scc_ace_record* ace);
void _scc_lib_ace_del(const scc_acl_key* key, const scc_ace_record* ace);
void _scc_lib_acl_reseq(const scc_acl_key* key, scc::u32 sn_start, scc::u32 sn_inc);
void _scc_lib_acl_update(const scc::pending_call* call);
void _scc_lib_dbg_acl_show(const void* request);
}
