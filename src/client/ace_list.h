// The ACEs of a cached ACL: a list in ascending order of their numbers, and a tree over it that finds a
// position in logarithmic time.
#pragma once

#include <cstddef>

#include "client/pending_calls.h"
#include "msg/protocol.h"
#include "scclib.h"
#include "util/list.h"
#include "util/rbtree.h"

namespace scc {

// The record's first 16 bytes link the list. To save a copy, a cached ACE is the block of the call that added
// it: the tree node overwrites the call's head.
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

[[nodiscard]] inline cached_ace* ace_of_link(list_node* link) {
    return reinterpret_cast<cached_ace*>(reinterpret_cast<u8*>(link) - offsetof(cached_ace, record));
}

// The first ACE with this number, in list order; null when there is none.
[[nodiscard]] cached_ace* find_ace(cached_acl& acl, u32 sn) SCC_REQUIRES(acl_lock);
// Takes ownership. Inserts after the ACEs with the same number.
void insert_in_order(cached_acl& acl, cached_ace* ace) SCC_REQUIRES(acl_lock);
void free_ace(cached_acl& acl, cached_ace* ace) SCC_REQUIRES(acl_lock);
void free_aces(cached_acl& acl) SCC_REQUIRES(acl_lock);
// Equal numbers in a row stay equal; those from 0x7FFFFFFF are kept.
void renumber(cached_acl& acl, u32 sn_start, u32 sn_inc) SCC_REQUIRES(acl_lock);

}  // namespace scc
