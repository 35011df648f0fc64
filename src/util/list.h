// The intrusive doubly linked list. A head is a node that points to itself when empty; the first
// entry is head.next. The owner of a list locks it.
#pragma once

#include <cstdint>

#include "scclib.h"

namespace scc {

using list_node = scc_list_head;

inline void INIT_LIST_HEAD(list_node* head) {
    head->next = head;
    head->prev = head;
}

namespace list_detail {

inline void insert_between(list_node* entry, list_node* before, list_node* after) {
    entry->next = after;
    entry->prev = before;
    before->next = entry;
    after->prev = entry;
}

}  // namespace list_detail

inline void list_add(list_node* entry, list_node* head) {
    list_detail::insert_between(entry, head, head->next);
}

inline void list_add_tail(list_node* entry, list_node* head) {
    list_detail::insert_between(entry, head->prev, head);  // NOLINT(clang-analyzer-core.CallAndMessage)
}

// A second unlink of the same entry faults on these addresses instead of corrupting the list.
inline constexpr std::uintptr_t list_poison_next = 0x100100;
inline constexpr std::uintptr_t list_poison_prev = 0x200200;

inline void list_del(list_node* entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = reinterpret_cast<list_node*>(list_poison_next);
    entry->prev = reinterpret_cast<list_node*>(list_poison_prev);
}

[[nodiscard]] inline bool list_empty(const list_node* head) {
    return head->next == head;
}

}  // namespace scc
