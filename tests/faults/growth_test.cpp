// An index that grows while its owner's lock is taken, or that no longer needs to, loses no memory; and the
// tables that the indices of calls and of ACLs have after each pass.
#include "client/growth.h"

#include <gtest/gtest.h>

#include "client/acl_cache.h"
#include "client/locks.h"
#include "client/pending_calls.h"
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

// ---- the indices of the library

class CallIndex : public ::testing::Test {
  protected:
    CallIndex() { scc::init_pending_calls(); }
    ~CallIndex() override {
        test::end_faults();
        scc::free_pending_calls();
    }

    void save(std::uint32_t count) {
        for (; saved < count; ++saved) {
            ASSERT_EQ(_scc_lib_save_call_data(saved, 1, nullptr, 0), 0U);
        }
    }

    // All other blocks are those of calls. The first table is not allocated.
    [[nodiscard]] long tables() const { return test::live_blocks() - before - saved; }

    const long before = test::live_blocks();
    std::uint32_t saved = 0;
};

// 10,000 calls need 32,768 buckets, as many as a pass moves.
TEST_F(CallIndex, IsReplacedInOnePassUpTo32768BucketsAndThenInTwo) {
    save(1100);
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 1);
    save(10000);
    EXPECT_EQ(tables(), 1) << "a request allocates its own block only";
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 1);
    save(32768);
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 1);
    save(65536);
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 2);
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 1);
    scc::grow_pending_index();
    EXPECT_EQ(tables(), 1);
    EXPECT_EQ(scc::pending_calls(), 65536U);
}

// The first 1,025 of them fill the ring and are moved to the index; twice as many entries need 4,096 buckets.
TEST_F(CallIndex, IsLargeEnoughForTheCallsThatNoLookUpHasMovedYet) {
    constexpr int bytes_of_8192_buckets = 8192 * 16;
    save(1025 + 1024);
    test::fail_allocations_of(bytes_of_8192_buckets);
    scc::grow_pending_index();
    EXPECT_TRUE(test::end_faults());
}

TEST_F(CallIndex, IsFreedWithItsCallsWhileItGrows) {
    save(20000);
    scc::grow_pending_index();
    save(70000);
    scc::grow_pending_index();
    ASSERT_EQ(tables(), 2);
    scc::free_pending_calls();
    EXPECT_EQ(test::live_blocks(), before);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

class AclIndex : public ::testing::Test {
  protected:
    AclIndex() { scc::init_acl_cache(); }
    ~AclIndex() override {
        test::end_faults();
        scc::free_acl_cache();
    }

    void hold(std::uint32_t count) {
        for (; held < count; ++held) {
            const scc_acl_key key = {0, 3, held, 0};
            _scc_lib_acl_add(&key);
        }
    }

    [[nodiscard]] long tables() const { return test::live_blocks() - before - held; }

    const long before = test::live_blocks();
    std::uint32_t held = 0;
};

// Without a checker, the index has replaced 32,768 slots by 65,536 when the former were three quarters full,
// and has moved none of them.
TEST_F(AclIndex, GoesOnInEachPassUntilItHasOneTableThatIsLargeEnough) {
    hold(33000);
    EXPECT_EQ(tables(), 2);
    scc::grow_acl_index();
    EXPECT_EQ(tables(), 1);
    scc::grow_acl_index();
    EXPECT_EQ(tables(), 2) << "the first half of 65,536 slots has moved to 131,072";
    scc::grow_acl_index();
    EXPECT_EQ(tables(), 1);
    scc::grow_acl_index();
    EXPECT_EQ(tables(), 1);
}

TEST_F(AclIndex, FreesANewTableThatItCannotInstallAndMakesOneInALaterPass) {
    hold(140);
    test::on_call(test::call::calloc, [] { EXPECT_EQ(pthread_rwlock_wrlock(&scc_acl_lock), 0); });
    scc::grow_acl_index();
    ASSERT_EQ(pthread_rwlock_unlock(&scc_acl_lock), 0);
    EXPECT_EQ(tables(), 0);
    scc::grow_acl_index();
    EXPECT_EQ(tables(), 1);
}

// The cache is emptied, as at the end of a connection, while the checker allocates.
TEST_F(AclIndex, FreesANewTableThatIsNotNeededAnyMore) {
    hold(140);
    test::on_call(test::call::calloc, scc::free_acl_cache);
    scc::grow_acl_index();
    EXPECT_EQ(test::live_blocks(), before);
}

}  // namespace
