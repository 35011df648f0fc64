// Red-black insertion and removal after Cormen et al. Mirrored cases are written once: `side` is a member
// pointer to one child, `other` to its mirror.
#include "util/rbtree.h"

using namespace scc;

namespace scc {
namespace {

using child = rb_node* rb_node::*;

bool is_red(const rb_node* node) {
    return node != nullptr && (node->parent_colour & rb_black) == rb_red;
}

child mirror(child side) {
    return side == &rb_node::left ? &rb_node::right : &rb_node::left;
}

void replace_in_parent(rb_node* old, rb_node* fresh, rb_node* parent, rb_root* root) {
    if (parent == nullptr) {
        root->node = fresh;
    } else if (parent->left == old) {
        parent->left = fresh;
    } else {
        parent->right = fresh;
    }
}

// Rotates pivot down to `side`; its other child takes its place.
void rotate(rb_node* pivot, child side, rb_root* root) {
    const child other = mirror(side);
    rb_node* rising = pivot->*other;
    rb_node* parent = rb_parent(pivot);
    pivot->*other = rising->*side;
    if (pivot->*other != nullptr) {
        scc_rb_set_parent(pivot->*other, pivot);
    }
    rising->*side = pivot;
    scc_rb_set_parent(rising, parent);
    replace_in_parent(pivot, rising, parent, root);
    scc_rb_set_parent(pivot, rising);
}

// Restores the black height after the removal of a black child of parent; node took its place.
void rebalance_after_erase(rb_node* node, rb_node* parent, rb_root* root) {
    while (node != root->node && !is_red(node)) {
        const child side = parent->left == node ? &rb_node::left : &rb_node::right;
        const child other = mirror(side);
        rb_node* sibling = parent->*other;
        if (is_red(sibling)) {
            scc_rb_set_color(sibling, rb_black);
            scc_rb_set_color(parent, rb_red);
            rotate(parent, side, root);
            sibling = parent->*other;
        }
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
        if (!is_red(sibling->left) && !is_red(sibling->right)) {
            scc_rb_set_color(sibling, rb_red);
            node = parent;
            parent = rb_parent(node);
            continue;
        }
        if (!is_red(sibling->*other)) {
            // Both get their colours below, in their new places.
            rotate(sibling, other, root);
            sibling = parent->*other;
        }
        scc_rb_set_color(sibling, parent->parent_colour & rb_black);
        scc_rb_set_color(parent, rb_black);
        scc_rb_set_color(sibling->*other, rb_black);
        rotate(parent, side, root);
        node = root->node;
    }
    if (node != nullptr) {
        scc_rb_set_color(node, rb_black);
    }
}

}  // namespace
}  // namespace scc

extern "C" {

void scc_rb_set_parent(rb_node* node, rb_node* parent) {
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    node->parent_colour = (node->parent_colour & 3U) | reinterpret_cast<std::uintptr_t>(parent);
}

void scc_rb_set_color(rb_node* node, std::uintptr_t colour) {
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    node->parent_colour = (node->parent_colour & ~rb_black) | colour;
}

void scc_rb_link_node(rb_node* node, rb_node* parent, rb_node** link) {
    node->parent_colour = reinterpret_cast<std::uintptr_t>(parent);
    node->left = nullptr;
    node->right = nullptr;
    *link = node;
}

void scc_rb_insert_color(rb_node* node, rb_root* root) {
    for (rb_node* parent = rb_parent(node); is_red(parent); parent = rb_parent(node)) {
        rb_node* grand = rb_parent(parent);
        const child side = grand->left == parent ? &rb_node::left : &rb_node::right;
        rb_node* uncle = grand->*mirror(side);
        if (is_red(uncle)) {
            scc_rb_set_color(uncle, rb_black);
            scc_rb_set_color(parent, rb_black);
            scc_rb_set_color(grand, rb_red);
            node = grand;
            continue;
        }
        if (parent->*mirror(side) == node) {
            rotate(parent, side, root);
            parent = node;
            node = parent->*side;
        }
        scc_rb_set_color(parent, rb_black);
        scc_rb_set_color(grand, rb_red);
        rotate(grand, mirror(side), root);
    }
    scc_rb_set_color(root->node, rb_black);
}

void scc_rb_erase(rb_node* node, rb_root* root) {
    rb_node* removed = node;
    if (node->left != nullptr && node->right != nullptr) {
        removed = node->right;
        while (removed->left != nullptr) {
            removed = removed->left;
        }
    }
    rb_node* orphan = removed->left != nullptr ? removed->left : removed->right;
    rb_node* parent = rb_parent(removed);
    const bool was_black = !is_red(removed);
    if (orphan != nullptr) {
        scc_rb_set_parent(orphan, parent);
    }
    replace_in_parent(removed, orphan, parent, root);
    if (removed != node) {
        // The successor takes the place and colour of the removed node.
        if (parent == node) {
            parent = removed;
        }
        *removed = *node;
        replace_in_parent(node, removed, rb_parent(node), root);
        scc_rb_set_parent(removed->left, removed);
        if (removed->right != nullptr) {
            scc_rb_set_parent(removed->right, removed);
        }
    }
    if (was_black) {
        rebalance_after_erase(orphan, parent, root);
    }
}

rb_node* scc_rb_first(const rb_root* root) {
    if (root == nullptr || root->node == nullptr) {
        return nullptr;
    }
    rb_node* node = root->node;
    while (node->left != nullptr) {
        node = node->left;
    }
    return node;
}

rb_node* scc_rb_next(const rb_node* node) {
    if (node == nullptr || rb_parent(node) == node) {
        return nullptr;
    }
    if (node->right != nullptr) {
        const rb_root below{node->right};
        return scc_rb_first(&below);
    }
    rb_node* parent = rb_parent(node);
    while (parent != nullptr && node == parent->right) {
        node = parent;
        parent = rb_parent(node);
    }
    return parent;
}
}
