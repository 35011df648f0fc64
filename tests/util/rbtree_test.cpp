// The red-black tree against a set, with its invariants checked after each change.
#include "util/rbtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <set>
#include <vector>

namespace {

using scc::rb_node;
using scc::rb_root;

struct keyed {
    rb_node node;
    int key;
};

bool is_red(const rb_node* node) {
    return node != nullptr && (node->parent_colour & 1U) == 0;
}

rb_node* parent_of(const rb_node* node) {
    return reinterpret_cast<rb_node*>(node->parent_colour & ~std::uintptr_t{3});
}

// The black height below a node, with every rule checked on the way.
int black_height(const rb_node* node, const rb_node* parent) {
    if (node == nullptr) {
        return 1;
    }
    EXPECT_EQ(parent_of(node), parent) << "a wrong parent";
    EXPECT_FALSE(is_red(node) && (is_red(node->left) || is_red(node->right))) << "red below red";
    const int left = black_height(node->left, node);
    const int right = black_height(node->right, node);
    EXPECT_EQ(left, right) << "unequal black heights";
    return left + (is_red(node) ? 0 : 1);
}

class RbTree : public ::testing::Test {
  protected:
    void insert(keyed& entry) {
        rb_node** link = &root.node;
        rb_node* parent = nullptr;
        while (*link != nullptr) {
            parent = *link;
            link = entry.key < reinterpret_cast<keyed*>(parent)->key ? &parent->left : &parent->right;
        }
        scc_rb_link_node(&entry.node, parent, link);
        scc_rb_insert_color(&entry.node, &root);
    }

    std::vector<int> walked() {
        std::vector<int> keys;
        for (rb_node* node = scc_rb_first(&root); node != nullptr; node = scc_rb_next(node)) {
            keys.push_back(reinterpret_cast<keyed*>(node)->key);
        }
        return keys;
    }

    void expect(const std::set<int>& model) {
        EXPECT_FALSE(is_red(root.node)) << "a red root";
        black_height(root.node, nullptr);
        ASSERT_EQ(walked(), std::vector<int>(model.begin(), model.end()));
    }

    // Inserts and erases in the orders given, checking after each step.
    void run(const std::vector<int>& inserted, const std::vector<int>& erased) {
        std::vector<keyed> entries(inserted.size());
        std::set<int> model;
        for (const int key : inserted) {
            entries[static_cast<std::size_t>(key)].key = key;
            insert(entries[static_cast<std::size_t>(key)]);
            model.insert(key);
            expect(model);
        }
        for (const int key : erased) {
            scc_rb_erase(&entries[static_cast<std::size_t>(key)].node, &root);
            model.erase(key);
            expect(model);
        }
        EXPECT_EQ(root.node, nullptr);
    }

    rb_root root{nullptr};
};

std::vector<int> ascending(int count) {
    std::vector<int> keys(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        keys[static_cast<std::size_t>(i)] = i;
    }
    return keys;
}

TEST_F(RbTree, ANodeIsParentAndColourThenRightThenLeft) {
    EXPECT_EQ(sizeof(rb_node), 24U);
    EXPECT_EQ(offsetof(rb_node, parent_colour), 0U);
    EXPECT_EQ(offsetof(rb_node, right), 8U);
    EXPECT_EQ(offsetof(rb_node, left), 16U);
    EXPECT_EQ(sizeof(rb_root), 8U);
}

TEST_F(RbTree, LinkingMakesARedLeafBelowItsParent) {
    keyed top{{}, 1};
    keyed leaf{{7, &top.node, &top.node}, 2};
    scc_rb_link_node(&top.node, nullptr, &root.node);
    EXPECT_EQ(root.node, &top.node);
    scc_rb_link_node(&leaf.node, &top.node, &top.node.right);
    EXPECT_EQ(top.node.right, &leaf.node);
    EXPECT_EQ(leaf.node.parent_colour, reinterpret_cast<std::uintptr_t>(&top.node));
    EXPECT_EQ(leaf.node.left, nullptr);
    EXPECT_EQ(leaf.node.right, nullptr);
}

TEST_F(RbTree, SettingTheParentKeepsTheLowBitsAndSettingTheColourKeepsTheParent) {
    keyed above{{}, 0};
    const auto address = reinterpret_cast<std::uintptr_t>(&above.node);
    for (const std::uintptr_t low : {0U, 1U, 2U, 3U}) {
        rb_node node{low, nullptr, nullptr};
        scc_rb_set_parent(&node, &above.node);
        EXPECT_EQ(node.parent_colour, address | low);
        scc_rb_set_color(&node, 1);
        EXPECT_EQ(node.parent_colour, address | low | 1U);
        scc_rb_set_color(&node, 0);
        EXPECT_EQ(node.parent_colour, address | (low & 2U));
        EXPECT_EQ(scc::rb_parent(&node), &above.node);
    }
}

TEST_F(RbTree, NothingHasNoFirstAndNoNext) {
    EXPECT_EQ(scc_rb_first(&root), nullptr);
    EXPECT_EQ(scc_rb_first(nullptr), nullptr);
    EXPECT_EQ(scc_rb_next(nullptr), nullptr);
}

TEST_F(RbTree, AnUnlinkedNodeHasNoNext) {
    keyed other{{}, 1};
    rb_node node{0, &other.node, &other.node};
    for (const std::uintptr_t colour : {0U, 1U}) {
        node.parent_colour = reinterpret_cast<std::uintptr_t>(&node) | colour;
        EXPECT_EQ(scc_rb_next(&node), nullptr);
    }
}

TEST_F(RbTree, TheLastNodeHasNoNext) {
    std::vector<keyed> entries(9);
    for (int i = 0; i < 9; ++i) {
        entries[static_cast<std::size_t>(i)].key = i;
        insert(entries[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(scc_rb_next(&entries[8].node), nullptr);
    EXPECT_EQ(scc_rb_first(&root), &entries[0].node);
}

TEST_F(RbTree, HoldsAscendingKeysErasedFromEitherEnd) {
    const std::vector<int> up = ascending(200);
    std::vector<int> down = up;
    std::reverse(down.begin(), down.end());
    run(up, up);
    run(up, down);
    run(down, up);
    run(down, down);
}

TEST_F(RbTree, HoldsEveryOrderOfSixKeysErasedInEveryRotation) {
    std::vector<int> order = ascending(6);
    do {
        std::vector<int> erased = ascending(6);
        for (int rotation = 0; rotation < 6; ++rotation) {
            run(order, erased);
            std::rotate(erased.begin(), erased.begin() + 1, erased.end());
        }
    } while (!HasFatalFailure() && std::next_permutation(order.begin(), order.end()));
}

TEST_F(RbTree, FollowsASetThroughRandomInsertionsAndErasures) {
    std::mt19937 random(11);
    std::vector<keyed> entries(400);
    std::set<int> model;
    for (int step = 0; step < 6000; ++step) {
        const int key = static_cast<int>(random() % 400);
        keyed& entry = entries[static_cast<std::size_t>(key)];
        entry.key = key;
        if (model.erase(key) != 0) {
            scc_rb_erase(&entry.node, &root);
        } else {
            insert(entry);
            model.insert(key);
        }
        if (step % 10 == 0) {
            expect(model);
        }
    }
    expect(model);
}

TEST_F(RbTree, KeepsEqualKeysInTheOrderOfInsertionWhenTheSearchGoesRight) {
    std::vector<keyed> entries(100);
    for (keyed& entry : entries) {
        entry.key = 5;
        insert(entry);
    }
    std::size_t i = 0;
    for (rb_node* node = scc_rb_first(&root); node != nullptr; node = scc_rb_next(node)) {
        EXPECT_EQ(node, &entries[i++].node);
    }
    EXPECT_EQ(i, 100U);
}

}  // namespace
