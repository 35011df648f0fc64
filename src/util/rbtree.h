// A red-black tree. It knows no keys: the caller searches from the root with its own comparison and
// links the new node at the empty child where the search ended. The owner of a tree locks it.
#pragma once

#include <cstdint>

namespace scc {

// The parent's address and, in bit 0, the colour: 0 red, 1 black. A node whose parent is itself is
// unlinked.
struct rb_node {
    std::uintptr_t parent_colour;
    rb_node* right;
    rb_node* left;
};

struct rb_root {
    rb_node* node;
};

inline constexpr std::uintptr_t rb_red = 0;
inline constexpr std::uintptr_t rb_black = 1;

[[nodiscard]] inline rb_node* rb_parent(const rb_node* node) {
    return reinterpret_cast<rb_node*>(node->parent_colour & ~std::uintptr_t{3});
}

}  // namespace scc

extern "C" {

void scc_rb_set_parent(scc::rb_node* node, scc::rb_node* parent);
void scc_rb_set_color(scc::rb_node* node, std::uintptr_t colour);
void scc_rb_link_node(scc::rb_node* node, scc::rb_node* parent, scc::rb_node** link);
void scc_rb_insert_color(scc::rb_node* node, scc::rb_root* root);
void scc_rb_erase(scc::rb_node* node, scc::rb_root* root);
[[nodiscard]] scc::rb_node* scc_rb_first(const scc::rb_root* root);
[[nodiscard]] scc::rb_node* scc_rb_next(const scc::rb_node* node);
}
