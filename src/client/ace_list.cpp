// See ace_list.h. Once a resequence has put numbers out of ascending order, the tree is of no use for
// searches and the list is walked.
#include "client/ace_list.h"

#include <cstdlib>
#include <cstring>

#include "msg/bytes.h"

namespace scc {
namespace {

constexpr u32 unnumbered_from = 0x7FFFFFFF;  // these keep their number in a resequence

constexpr std::size_t record_offset = offsetof(cached_ace, record);
// What is kept of a record is its beginning and a multiple of this.
constexpr std::size_t part_bytes = 136;

static_assert((record::ace - sizeof(ace_beginning)) % part_bytes == 0);
static_assert(part_bytes % sizeof(u64) == 0);

bool is_zero(const u8* part) {
    u64 bits = 0;
    for (std::size_t at = 0; at < part_bytes; at += sizeof(u64)) {
        bits |= load<u64>(part, at);
    }
    return bits == 0;
}

std::size_t bytes_to_keep(const u8* record) {
    std::size_t kept = record::ace;
    while (kept > sizeof(ace_beginning) && is_zero(record + kept - part_bytes)) {
        kept -= part_bytes;
    }
    return kept;
}

cached_ace* copy_of(const u8* record, std::size_t kept) {
    void* block = std::malloc(record_offset + kept);
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(static_cast<u8*>(block) + record_offset, record, kept);
    auto* ace = static_cast<cached_ace*>(block);
    ace->kept_bytes = static_cast<u32>(kept);
    ace->offset = 0;
    return ace;
}

void free_block(cached_ace* ace) {
    std::free(reinterpret_cast<u8*>(ace) - ace->offset);
}

cached_ace* ace_of_place(rb_node* node) {
    return reinterpret_cast<cached_ace*>(node);
}

template <class Condition>
cached_ace* first_in_list(cached_acl& acl, Condition holds) {
    for (list_node* link = acl.aces.next; link != &acl.aces; link = link->next) {
        if (holds(ace_of_link(link)->record.sn)) {
            return ace_of_link(link);
        }
    }
    return nullptr;
}

// The first ACE whose number meets a condition that all greater numbers meet too; null when there is none.
template <class Condition>
cached_ace* first_where(cached_acl& acl, Condition holds) {
    if (acl.out_of_order != 0) {
        return first_in_list(acl, holds);
    }
    // Fast path: ACEs usually arrive in ascending order.
    if (!list_empty(&acl.aces) && !holds(ace_of_link(acl.aces.prev)->record.sn)) {
        return nullptr;
    }
    cached_ace* found = nullptr;
    for (rb_node* node = acl.places.node; node != nullptr;) {
        const bool match = holds(ace_of_place(node)->record.sn);
        found = match ? ace_of_place(node) : found;
        node = match ? node->left : node->right;
    }
    return found;
}

// At the end when successor is null.
void insert_before(cached_acl& acl, cached_ace* ace, cached_ace* successor) {
    list_add_tail(&ace->record.link, successor == nullptr ? &acl.aces : &successor->record.link);
    rb_node* parent = nullptr;
    rb_node** child = &acl.places.node;
    if (successor != nullptr && successor->place.left == nullptr) {
        parent = &successor->place;
        child = &parent->left;
    } else if (ace->record.link.prev != &acl.aces) {
        // The predecessor is the rightmost below the successor's left child.
        parent = &ace_of_link(ace->record.link.prev)->place;
        child = &parent->right;
    }
    scc_rb_link_node(&ace->place, parent, child);
    scc_rb_insert_color(&ace->place, &acl.places);
    ++acl.ace_count;
}

}  // namespace

cached_ace* copy_of(const scc_ace_record* record) {
    const auto* bytes = reinterpret_cast<const u8*>(record);
    return copy_of(bytes, bytes_to_keep(bytes));
}

cached_ace* ace_of_call(pending_call* call, bool& takes_block) {
    constexpr std::size_t record_in_block = pending_call::head_bytes + sizeof(scc_acl_key);
    u8* const block = reinterpret_cast<u8*>(call);
    const std::size_t kept = bytes_to_keep(block + record_in_block);
    if (cached_ace* copy = kept < record::ace ? copy_of(block + record_in_block, kept) : nullptr;
        copy != nullptr) {
        takes_block = false;
        return copy;
    }
    constexpr std::size_t offset = record_in_block - record_offset;
    auto* ace = reinterpret_cast<cached_ace*>(block + offset);
    ace->kept_bytes = record::ace;
    ace->offset = offset;
    takes_block = true;
    return ace;
}

void read_record(const cached_ace& ace, scc_ace_record& out) {
    const u8* const kept = reinterpret_cast<const u8*>(&ace) + record_offset;
    u8* const bytes = reinterpret_cast<u8*>(&out);
    std::memcpy(bytes, kept, sizeof(ace_beginning));
    for (std::size_t at = sizeof(ace_beginning); at < record::ace; at += part_bytes) {
        if (at < ace.kept_bytes) {
            std::memcpy(bytes + at, kept + at, part_bytes);
        } else {
            std::memset(bytes + at, 0, part_bytes);
        }
    }
}

cached_ace* find_ace(cached_acl& acl, u32 sn) {
    if (acl.out_of_order != 0) {
        return first_in_list(acl, [sn](u32 other) { return other == sn; });
    }
    cached_ace* ace = first_where(acl, [sn](u32 other) { return other >= sn; });
    return ace != nullptr && ace->record.sn == sn ? ace : nullptr;
}

void insert_in_order(cached_acl& acl, cached_ace* ace) {
    insert_before(acl, ace, first_where(acl, [sn = ace->record.sn](u32 other) { return other > sn; }));
}

void free_ace(cached_acl& acl, cached_ace* ace) {
    list_del(&ace->record.link);
    scc_rb_erase(&ace->place, &acl.places);
    --acl.ace_count;
    free_block(ace);
}

void free_aces(cached_acl& acl) {
    while (!list_empty(&acl.aces)) {
        cached_ace* ace = ace_of_link(acl.aces.next);  // NOLINT(clang-analyzer-unix.Malloc)
        list_del(&ace->record.link);
        free_block(ace);
    }
}

void renumber(cached_acl& acl, u32 sn_start, u32 sn_inc) {
    u32 next = sn_start;
    u32 previous_old = 0;
    u32 previous_new = 0;
    u32 last = 0;
    acl.out_of_order = 0;
    for (list_node* link = acl.aces.next; link != &acl.aces; link = link->next) {
        u32& sn = ace_of_link(link)->record.sn;
        if (sn < unnumbered_from) {
            if (sn != previous_old) {
                previous_old = sn;
                previous_new = next;
                next += sn_inc;
            }
            // Deliberately, a leading 0 equals previous_old and stays 0.
            sn = previous_new;
        }
        if (sn < last) {
            acl.out_of_order = 1;
        }
        last = sn;
    }
}

}  // namespace scc
