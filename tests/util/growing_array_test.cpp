// The array of slots that a larger one replaces in steps.
#include "util/growing_array.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

using small_array = scc::growing_array<int, 4>;

// Holds the numbers from 0 on.
int* numbers(int count) {
    auto* slots = static_cast<int*>(std::malloc(static_cast<std::size_t>(count) * sizeof(int)));
    for (int i = 0; i < count; ++i) {
        slots[i] = i;
    }
    return slots;
}

TEST(GrowingArray, HasNoSlotsBeforeTheFirstResetAndItsFirstOnesAfterIt) {
    small_array array;
    EXPECT_FALSE(array.is_ready());
    array.reset();
    EXPECT_TRUE(array.is_ready());
    EXPECT_FALSE(array.is_growing());
    EXPECT_EQ(array.size(), 4U);
    EXPECT_EQ(array.mask(), 3U);
}

TEST(GrowingArray, ReplacesItsSlotsAtOnceAndMovesTheFormerOnesInOrder) {
    small_array array;
    array.reset();
    int* const first = array.slots();
    int* const larger = numbers(8);
    array.begin_growth(larger, 8);
    EXPECT_TRUE(array.is_growing());
    EXPECT_EQ(array.slots(), larger);
    EXPECT_EQ(array.mask(), 7U);
    EXPECT_EQ(array.former(), first);
    EXPECT_EQ(array.former_mask(), 3U);
    EXPECT_EQ(array.moved(), 0U);
    std::vector<const int*> moved;
    const auto note = [&moved](const int& slot) { moved.push_back(&slot); };
    EXPECT_EQ(array.move(0, note), nullptr);
    EXPECT_EQ(array.move(3, note), nullptr);
    EXPECT_EQ(array.moved(), 3U);
    EXPECT_TRUE(array.is_growing());
    EXPECT_EQ(array.move(3, note), nullptr);  // the first slots are part of the object
    EXPECT_EQ(moved, (std::vector<const int*>{first, first + 1, first + 2, first + 3}));
    EXPECT_FALSE(array.is_growing());
    EXPECT_EQ(array.move(3, note), nullptr);
    EXPECT_EQ(moved.size(), 4U);
    array.reset();
}

TEST(GrowingArray, HandsALargerFormerArrayToItsOwner) {
    small_array array;
    array.reset();
    int* const second = numbers(8);
    array.begin_growth(second, 8);
    EXPECT_EQ(array.move(4, [](int&) {}), nullptr);
    array.begin_growth(numbers(16), 16);
    int sum = 0;
    int* const former = array.move(100, [&sum](const int& slot) { sum += slot; });
    EXPECT_EQ(former, second);
    EXPECT_EQ(sum, 28);
    std::free(former);
    EXPECT_FALSE(array.is_growing());
    array.reset();
}

// The leak checker sees what it forgets.
TEST(GrowingArray, ResetWhileItGrowsFreesBothArraysAndGoesBackToTheFirst) {
    small_array array;
    array.reset();
    int* const first = array.slots();
    array.begin_growth(numbers(8), 8);
    EXPECT_EQ(array.move(4, [](int&) {}), nullptr);
    array.begin_growth(numbers(16), 16);
    EXPECT_EQ(array.move(2, [](int&) {}), nullptr);
    array.reset();
    EXPECT_EQ(array.slots(), first);
    EXPECT_EQ(array.size(), 4U);
    EXPECT_FALSE(array.is_growing());
    array.reset();
}

}  // namespace
