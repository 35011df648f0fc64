// The ring between two threads: order, bounds, looking ahead, and nothing lost or doubled under load.
#include "util/handoff_ring.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace {

TEST(HandoffRing, GivesBackWhatWasGivenInItsOrder) {
    scc::handoff_ring<int, 4> ring;
    int value = 0;
    EXPECT_TRUE(ring.empty());
    EXPECT_FALSE(ring.pop(value));
    for (const int given : {7, 8, 9}) {
        ASSERT_TRUE(ring.push(given));
    }
    EXPECT_FALSE(ring.empty());
    for (const int expected : {7, 8, 9}) {
        ASSERT_TRUE(ring.pop(value));
        EXPECT_EQ(value, expected);
    }
    EXPECT_TRUE(ring.empty());
    EXPECT_EQ(ring.taken(), 3U);
}

TEST(HandoffRing, RefusesWhatDoesNotFitUntilSomethingIsTaken) {
    scc::handoff_ring<int, 4> ring;
    for (int given = 1; given <= 4; ++given) {
        ASSERT_TRUE(ring.push(given));
    }
    EXPECT_FALSE(ring.push(5));
    int value = 0;
    ASSERT_TRUE(ring.pop(value));
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(ring.push(5));
    EXPECT_FALSE(ring.push(6));
    for (const int expected : {2, 3, 4, 5}) {
        ASSERT_TRUE(ring.pop(value));
        EXPECT_EQ(value, expected);
    }
    EXPECT_FALSE(ring.pop(value));
}

TEST(HandoffRing, LooksAheadAsFarAsThereAreValues) {
    scc::handoff_ring<int, 4> ring;
    int value = 0;
    EXPECT_FALSE(ring.peek(0, value));
    ASSERT_TRUE(ring.push(1));
    ASSERT_TRUE(ring.push(2));
    ASSERT_TRUE(ring.peek(0, value));
    EXPECT_EQ(value, 1);
    ASSERT_TRUE(ring.peek(1, value));
    EXPECT_EQ(value, 2);
    EXPECT_FALSE(ring.peek(2, value));
    ASSERT_TRUE(ring.pop(value));
    EXPECT_EQ(value, 1);
}

TEST(HandoffRing, LosesAndDoublesNothingBetweenTwoThreads) {
    // On a busy machine each turn of the other thread takes long, so a full ring holds more than a few
    // values.
    static scc::handoff_ring<std::uint32_t, 64> ring;
    constexpr std::uint32_t count = 50'000;
    std::thread giving([] {
        for (std::uint32_t value = 1; value <= count; ++value) {
            while (!ring.push(value)) {
                std::this_thread::yield();
            }
        }
    });
    std::uint32_t value = 0;
    for (std::uint32_t expected = 1; expected <= count; ++expected) {
        while (!ring.pop(value)) {
            std::this_thread::yield();
        }
        ASSERT_EQ(value, expected);
    }
    giving.join();
    EXPECT_TRUE(ring.empty());
}

}  // namespace
