// An index that grows while its owner's lock is taken, or that no longer needs to, loses no memory.
#include "client/growth.h"

#include <gtest/gtest.h>

#include "support/faults.h"

namespace {

// A table whose owner has changed it since it asked for more slots, when `takes` is false.
struct table {
    static constexpr std::size_t wanted = 64;

    bool takes = true;
    void* slots = nullptr;
    std::size_t moved = 0;

    [[nodiscard]] std::size_t buckets_wanted() const { return slots == nullptr ? wanted : 0; }
    [[nodiscard]] bool is_growing() const { return slots != nullptr && moved < wanted; }
    [[nodiscard]] static void* allocate_buckets(std::size_t count) { return std::malloc(count); }
    [[nodiscard]] bool begin_growth(void* given, std::size_t) {
        slots = takes ? given : nullptr;
        return takes;
    }
    [[nodiscard]] void* move_buckets(std::size_t count) {
        moved += count;
        return is_growing() ? nullptr : std::malloc(1);  // the former table
    }
};

// Grows the table; the lock is taken from the nth access on, counted from 0.
void grow(table& growing, int taken_from) {
    int accesses = 0;
    scc::grow_in_steps<table>([&](auto work) {
        if (accesses++ >= taken_from) {
            return false;
        }
        work(growing);
        return true;
    });
}

constexpr int never = 1000;

TEST(GrowthMemory, OfTheFormerTableIsFreedAfterTheLastStep) {
    const long before = test::live_blocks();
    table growing;
    grow(growing, never);
    EXPECT_FALSE(growing.is_growing());
    EXPECT_EQ(test::live_blocks(), before + 1);
    std::free(growing.slots);
}

TEST(GrowthMemory, ThatIsNotNeededAnyMoreIsFreed) {
    const long before = test::live_blocks();
    table growing;
    growing.takes = false;
    grow(growing, never);
    EXPECT_EQ(growing.moved, 0U);
    EXPECT_EQ(test::live_blocks(), before);
}

TEST(GrowthMemory, IsFreedWhenTheLockIsTakenAtTheBeginning) {
    const long before = test::live_blocks();
    for (const int taken_from : {0, 1}) {
        table growing;
        grow(growing, taken_from);
        EXPECT_EQ(growing.slots, nullptr);
        EXPECT_EQ(test::live_blocks(), before) << taken_from;
    }
}

TEST(GrowthMemory, StaysWithATableWhoseLockIsTakenDuringTheMove) {
    const long before = test::live_blocks();
    table growing;
    grow(growing, 2);
    EXPECT_TRUE(growing.is_growing());
    EXPECT_EQ(growing.moved, 0U);
    EXPECT_EQ(test::live_blocks(), before + 1);
    grow(growing, never);
    EXPECT_FALSE(growing.is_growing());
    EXPECT_EQ(test::live_blocks(), before + 1);
    std::free(growing.slots);
}

TEST(GrowthMemory, ThatCannotBeHadLeavesTheTableAsItIs) {
    table growing;
    test::fail_allocation(1);
    grow(growing, never);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(growing.slots, nullptr);
    EXPECT_EQ(growing.moved, 0U);
}

}  // namespace
