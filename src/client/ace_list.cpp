// See ace_list.h. Once a resequence has put numbers out of ascending order, the tree is of no use for
// searches and the list is walked.
#include "client/ace_list.h"

#include <cstdlib>

namespace scc {
namespace {

constexpr u32 unnumbered_from = 0x7FFFFFFF;  // these keep their number in a resequence

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
    std::free(ace);
}

void free_aces(cached_acl& acl) {
    while (!list_empty(&acl.aces)) {
        cached_ace* ace = ace_of_link(acl.aces.next);  // NOLINT(clang-analyzer-unix.Malloc)
        list_del(&ace->record.link);
        std::free(ace);
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
