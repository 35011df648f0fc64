// The client's copy of the ACLs that the daemon confirmed. Filled from results, read by the query calls and
// the debug display. scc_acl_lock guards it; a thread that needs scc_lib_lock as well takes that one first.
#pragma once

#include "client/ace_list.h"
#include "client/locks.h"

namespace scc {

inline constexpr u32 acl_buckets = 512;

void init_acl_cache();
// Initialises the buckets at the first call.
void prepare_acl_buckets() SCC_REQUIRES(acl_lock);
void free_acl_cache();
// For the checker thread, so that confirmed ACLs need not wait while the index grows.
void grow_acl_index();
[[nodiscard]] u64 cached_acl_count() SCC_REQUIRES(acl_lock);
[[nodiscard]] list_node* acl_bucket(u32 i) SCC_REQUIRES(acl_lock);

// Increases each time the cache is emptied.
[[nodiscard]] u32 acl_cache_revision();
// Like _scc_lib_acl_update, unless the cache was emptied since the revision. True when the cache has taken
// ownership of the call's block.
[[nodiscard]] bool take_into_cache(pending_call* call, u32 revision);

[[nodiscard]] u64 capability_word();
void set_capability_word(u64 word);

}  // namespace scc

extern "C" {
[[nodiscard]] scc::u32 _scc_lib_acl_info_check(const scc_acl_key* key);
[[nodiscard]] scc::u32 _acl_hash_idx_get(const scc_acl_key* key);
[[nodiscard]] scc::cached_acl* _scc_acl_get(const scc_acl_key* key) SCC_REQUIRES(scc::acl_lock);
void _scc_lib_acl_add(const scc_acl_key* key);
void _scc_lib_acl_del(const scc_acl_key* key);
void _scc_lib_ace_add(const scc_acl_key* key, const scc_ace_record* ace);
void _scc_lib_ace_del(const scc_acl_key* key, const scc_ace_record* ace);
void _scc_lib_acl_reseq(const scc_acl_key* key, scc::u32 sn_start, scc::u32 sn_inc);
void _scc_lib_acl_update(const scc::pending_call* call);
void _scc_lib_dbg_acl_show(const void* request);
}
