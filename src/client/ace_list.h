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

// The beginning of a record, which every cached ACE keeps.
struct ace_beginning {
    list_node link;  // of the list, in the place of the caller's
    u8 match[204];
    u32 sn;
    u32 ace_id;
};

// A record ends in zeros, mostly in many: these are not kept, since fresh memory costs more than everything
// else that adding an ACE takes. A record without such an end stays in the block of the call that added it.
struct cached_ace {
    rb_node place;
    u32 kept_bytes;  // of the record; the rest is zero
    u32 offset;      // in its block
    ace_beginning record;
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
static_assert(offsetof(scc_ace_record, sn) == 220);
static_assert(offsetof(scc_ace_record, ace_id) == 224);
static_assert(offsetof(ace_beginning, sn) == offsetof(scc_ace_record, sn));
static_assert(offsetof(ace_beginning, ace_id) == offsetof(scc_ace_record, ace_id));

[[nodiscard]] inline cached_ace* ace_of_link(list_node* link) {
    return reinterpret_cast<cached_ace*>(reinterpret_cast<u8*>(link) - offsetof(cached_ace, record));
}

// Copies a record, which may be unaligned; null without memory.
[[nodiscard]] cached_ace* copy_of(const scc_ace_record* record);
// The ACE of a confirmed call that adds one. When takes_block is then true, its block is the call's, because
// the record has no zeros at its end or there is no memory for a copy.
[[nodiscard]] cached_ace* ace_of_call(pending_call* call, bool& takes_block);
// The whole record.
void read_record(const cached_ace& ace, scc_ace_record& out);

// The first ACE with this number, in list order; null when there is none.
[[nodiscard]] cached_ace* find_ace(cached_acl& acl, u32 sn) SCC_REQUIRES(acl_lock);
// Takes ownership. Inserts after the ACEs with the same number.
void insert_in_order(cached_acl& acl, cached_ace* ace) SCC_REQUIRES(acl_lock);
void free_ace(cached_acl& acl, cached_ace* ace) SCC_REQUIRES(acl_lock);
void free_aces(cached_acl& acl) SCC_REQUIRES(acl_lock);
// Equal numbers in a row stay equal; those from 0x7FFFFFFF are kept.
void renumber(cached_acl& acl, u32 sn_start, u32 sn_inc) SCC_REQUIRES(acl_lock);

}  // namespace scc
