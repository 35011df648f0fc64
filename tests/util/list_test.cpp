// The intrusive list: order, unlinking, and the poison that a second unlink meets.
#include "util/list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <list>
#include <random>
#include <vector>

namespace {

using scc::list_node;

struct numbered {
    list_node link;
    int number;
};

std::vector<int> forwards(const list_node& head) {
    std::vector<int> numbers;
    for (const list_node* node = head.next; node != &head; node = node->next) {
        numbers.push_back(reinterpret_cast<const numbered*>(node)->number);
    }
    return numbers;
}

std::vector<int> backwards(const list_node& head) {
    std::vector<int> numbers;
    for (const list_node* node = head.prev; node != &head; node = node->prev) {
        numbers.insert(numbers.begin(), reinterpret_cast<const numbered*>(node)->number);
    }
    return numbers;
}

class List : public ::testing::Test {
  protected:
    List() { scc::INIT_LIST_HEAD(&head); }

    void expect(const std::vector<int>& numbers) {
        EXPECT_EQ(forwards(head), numbers);
        EXPECT_EQ(backwards(head), numbers);
        EXPECT_EQ(scc::list_empty(&head), numbers.empty());
    }

    list_node head{};
    numbered one{{}, 1};
    numbered two{{}, 2};
    numbered three{{}, 3};
};

TEST_F(List, ANodeIsNextThenPrevAndAnEmptyHeadPointsToItself) {
    EXPECT_EQ(sizeof(list_node), 16U);
    EXPECT_EQ(offsetof(list_node, next), 0U);
    EXPECT_EQ(offsetof(list_node, prev), 8U);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    expect({});
}

TEST_F(List, AddingInsertsAfterTheHead) {
    scc::list_add(&one.link, &head);
    scc::list_add(&two.link, &head);
    scc::list_add(&three.link, &head);
    expect({3, 2, 1});
}

TEST_F(List, AddingAtTheTailKeepsTheOrderOfInsertion) {
    scc::list_add_tail(&one.link, &head);
    scc::list_add_tail(&two.link, &head);
    scc::list_add_tail(&three.link, &head);
    expect({1, 2, 3});
}

TEST_F(List, AddingInFrontOfAnEntryTakesThatEntryForTheHead) {
    scc::list_add_tail(&one.link, &head);
    scc::list_add_tail(&three.link, &head);
    scc::list_add_tail(&two.link, &three.link);
    expect({1, 2, 3});
}

TEST_F(List, DeletingUnlinksAndPoisonsBothLinks) {
    scc::list_add_tail(&one.link, &head);
    scc::list_add_tail(&two.link, &head);
    scc::list_add_tail(&three.link, &head);
    scc::list_del(&two.link);
    expect({1, 3});
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(two.link.next), 0x100100U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(two.link.prev), 0x200200U);
    scc::list_del(&one.link);
    scc::list_del(&three.link);
    expect({});
}

TEST_F(List, ADeletedEntryCanBeAddedAgain) {
    scc::list_add_tail(&one.link, &head);
    scc::list_del(&one.link);
    scc::list_add(&one.link, &head);
    expect({1});
}

using ListDeath = List;

TEST_F(ListDeath, ASecondUnlinkFaults) {
    scc::list_add_tail(&one.link, &head);
    scc::list_del(&one.link);
    EXPECT_DEATH(scc::list_del(&one.link), "");
}

TEST_F(List, FollowsAModelThroughRandomChanges) {
    std::mt19937 random(5);
    std::vector<numbered> entries(50);
    std::list<int> model;
    for (int i = 0; i < 50; ++i) {
        entries[static_cast<std::size_t>(i)].number = i;
    }
    for (int step = 0; step < 2000; ++step) {
        const int chosen = static_cast<int>(random() % 50);
        list_node* link = &entries[static_cast<std::size_t>(chosen)].link;
        const auto held = std::find(model.begin(), model.end(), chosen);
        if (held != model.end()) {
            scc::list_del(link);
            model.erase(held);
        } else if (random() % 2 == 0) {
            scc::list_add(link, &head);
            model.push_front(chosen);
        } else {
            scc::list_add_tail(link, &head);
            model.push_back(chosen);
        }
        ASSERT_EQ(forwards(head), std::vector<int>(model.begin(), model.end()));
        ASSERT_EQ(backwards(head), std::vector<int>(model.begin(), model.end()));
    }
}

}  // namespace
