// The index by key: against a standard map over a long random life, whether its owner grows it in time or
// not.
#include "util/key_index.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <vector>

namespace {

// Few distinct hashes, so that long runs of neighbours form and wrap round the end of the table.
std::uint64_t crowded_hash(const std::uint32_t& key) {
    return key % 7 == 0 ? 15 : key % 5;
}

std::uint64_t spread_hash(const std::uint32_t& key) {
    return key * 0x9E3779B97F4A7C15ULL >> 20U;
}

enum class owner { absent, slow };

template <class Index>
bool begin_growth(Index& index) {
    const std::size_t wanted = index.buckets_wanted();
    if (wanted == 0) {
        return false;
    }
    auto* slots = index.allocate_buckets(wanted);
    const bool begun = index.begin_growth(slots, wanted);
    if (!begun) {
        std::free(slots);
    }
    return begun;
}

template <auto HashOf>
void live_beside_a_map(std::uint32_t keys, int steps, owner owned = owner::absent) {
    scc::key_index<std::uint32_t, int, HashOf, 16> index;
    index.reset();
    std::map<std::uint32_t, int*> expected;
    static int values[4096];
    std::mt19937 random(42);
    for (int step = 0; step < steps; ++step) {
        const auto key = static_cast<std::uint32_t>(random() % keys);
        const auto known = expected.find(key);
        ASSERT_EQ(index.find(key), known == expected.end() ? nullptr : known->second);
        if (known != expected.end()) {
            index.erase(key);
            expected.erase(known);
        } else {
            ASSERT_TRUE(index.insert(key, &values[key]));
            expected[key] = &values[key];
        }
        if (owned == owner::slow && step % 40 == 0) {
            (void)begin_growth(index);
        } else if (owned == owner::slow && step % 3 == 0) {
            std::free(index.move_buckets(1));
        }
    }
    for (std::uint32_t key = 0; key < keys; ++key) {
        ASSERT_EQ(index.find(key), expected.contains(key) ? &values[key] : nullptr) << key;
    }
    index.reset();
    EXPECT_EQ(index.find(expected.begin()->first), nullptr);
}

TEST(KeyIndex, FindsWhatIsThereAndNothingElse) {
    live_beside_a_map<spread_hash>(4096, 50000);
}

TEST(KeyIndex, KeepsCrowdedNeighboursFindableWhenOneOfThemGoes) {
    live_beside_a_map<crowded_hash>(60, 50000);
}

TEST(KeyIndex, FindsTheSameWhileItsOwnerGrowsItInSteps) {
    live_beside_a_map<spread_hash>(4096, 50000, owner::slow);
    live_beside_a_map<crowded_hash>(60, 50000, owner::slow);
}

// 16 slots, of which `filled` hold the keys from 0 on.
template <auto HashOf = spread_hash>
class small_index : public scc::key_index<std::uint32_t, int, HashOf, 16> {
  public:
    explicit small_index(std::uint32_t filled) {
        this->reset();
        for (std::uint32_t key = 0; key < filled; ++key) {
            EXPECT_TRUE(this->insert(key, &values[key]));
        }
    }
    ~small_index() { this->reset(); }
    small_index(const small_index&) = delete;
    small_index& operator=(const small_index&) = delete;

    // The keys below `end` that are found.
    std::vector<std::uint32_t> found(std::uint32_t end) const {
        std::vector<std::uint32_t> keys;
        for (std::uint32_t key = 0; key < end; ++key) {
            if (int* value = this->find(key); value != nullptr) {
                EXPECT_EQ(value, &values[key]);
                keys.push_back(key);
            }
        }
        return keys;
    }

    mutable int values[64]{};
};

using keys = std::vector<std::uint32_t>;

TEST(KeyIndex, WantsTwiceTheSlotsOnceMoreThanHalfAreTaken) {
    EXPECT_EQ(small_index(8).buckets_wanted(), 0U);
    small_index index(9);
    EXPECT_EQ(index.buckets_wanted(), 32U);
    ASSERT_TRUE(begin_growth(index));
    EXPECT_TRUE(index.is_growing());
    EXPECT_EQ(index.buckets_wanted(), 0U);
}

TEST(KeyIndex, MovesNoMoreSlotsThanItIsTold) {
    small_index index(9);
    ASSERT_TRUE(begin_growth(index));
    EXPECT_EQ(index.move_buckets(15), nullptr);
    EXPECT_TRUE(index.is_growing());
    EXPECT_EQ(index.move_buckets(1), nullptr);  // the first table is part of the object
    EXPECT_FALSE(index.is_growing());
    EXPECT_EQ(index.found(20), (keys{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(KeyIndex, HandsTheFormerTableOutOnce) {
    small_index index(12);
    ASSERT_TRUE(begin_growth(index));
    EXPECT_EQ(index.move_buckets(100), nullptr);
    for (std::uint32_t key = 12; key < 20; ++key) {
        ASSERT_TRUE(index.insert(key, &index.values[key]));
    }
    ASSERT_TRUE(begin_growth(index));
    auto* former = index.move_buckets(100);
    EXPECT_NE(former, nullptr);
    std::free(former);
    EXPECT_EQ(index.move_buckets(100), nullptr);
    EXPECT_EQ(index.found(64).size(), 20U);
}

// All keys have one hash, so that a lookup passes the slots of those that are gone.
TEST(KeyIndex, WhatIsErasedWhileItGrowsStaysErasedAndTheRestIsFound) {
    for (const std::size_t moved : {0U, 3U, 5U, 16U}) {
        small_index<[](const std::uint32_t&) { return std::uint64_t{1}; }> index(9);
        ASSERT_TRUE(begin_growth(index));
        std::free(index.move_buckets(moved));
        index.erase(0);
        index.erase(4);
        index.erase(4);
        index.erase(50);
        EXPECT_EQ(index.found(64), (keys{1, 2, 3, 5, 6, 7, 8})) << moved;
        ASSERT_TRUE(index.insert(4, &index.values[4]));
        ASSERT_TRUE(index.insert(20, &index.values[20]));
        EXPECT_EQ(index.found(64), (keys{1, 2, 3, 4, 5, 6, 7, 8, 20})) << moved;
        std::free(index.move_buckets(100));
        EXPECT_EQ(index.found(64), (keys{1, 2, 3, 4, 5, 6, 7, 8, 20})) << moved;
        index.erase(4);
        EXPECT_EQ(index.found(64), (keys{1, 2, 3, 5, 6, 7, 8, 20})) << moved;
    }
}

// Or it would want a larger table for entries that it does not have.
TEST(KeyIndex, CountsWhatIsErasedWhileItGrows) {
    small_index index(9);
    ASSERT_TRUE(begin_growth(index));
    for (std::uint32_t key = 0; key < 9; ++key) {
        index.erase(key);
    }
    std::free(index.move_buckets(100));
    for (std::uint32_t key = 0; key < 16; ++key) {
        ASSERT_TRUE(index.insert(key, &index.values[key]));
    }
    EXPECT_EQ(index.buckets_wanted(), 0U);
    ASSERT_TRUE(index.insert(16, &index.values[16]));
    EXPECT_EQ(index.buckets_wanted(), 64U);
}

TEST(KeyIndex, RefusesSlotsThatItNoLongerNeeds) {
    small_index index(9);
    auto* slots = index.allocate_buckets(32);
    index.erase(0);
    EXPECT_FALSE(index.begin_growth(slots, 32));
    EXPECT_FALSE(index.is_growing());
    ASSERT_TRUE(index.insert(0, &index.values[0]));
    EXPECT_FALSE(index.begin_growth(slots, 16));
    EXPECT_TRUE(index.begin_growth(slots, 32));
}

TEST(KeyIndex, GrowsByItselfThreeQuartersFullAndFinishesAnEarlierGrowthFirst) {
    small_index index(12);
    EXPECT_FALSE(index.is_growing());
    for (std::uint32_t key = 12; key < 64; ++key) {
        ASSERT_TRUE(index.insert(key, &index.values[key]));
        EXPECT_TRUE(index.is_growing());
        EXPECT_EQ(index.found(64).size(), key + 1);
    }
}

TEST(KeyIndex, ForgetsEverythingWhileItGrows) {
    small_index index(9);
    ASSERT_TRUE(begin_growth(index));
    EXPECT_EQ(index.move_buckets(3), nullptr);
    index.reset();
    EXPECT_FALSE(index.is_growing());
    EXPECT_EQ(index.buckets_wanted(), 0U);
    EXPECT_EQ(index.found(64), keys{});
    ASSERT_TRUE(index.insert(3, &index.values[3]));
    EXPECT_EQ(index.found(64), keys{3});
}

TEST(KeyIndex, IsEmptyBeforeItsFirstUse) {
    static constinit scc::key_index<std::uint32_t, int, spread_hash, 16> untouched{};
    EXPECT_EQ(untouched.find(1), nullptr);
}

TEST(KeyIndex, DoesNothingForAKeyThatIsNotThere) {
    scc::key_index<std::uint32_t, int, crowded_hash, 16> index;
    index.reset();
    int value = 0;
    ASSERT_TRUE(index.insert(3, &value));
    index.erase(8);  // the same hash
    EXPECT_EQ(index.find(3), &value);
}

TEST(KeyIndex, ForgetsWhatASmallTableHeld) {
    scc::key_index<std::uint32_t, int, spread_hash, 16> index;
    index.reset();
    int value = 0;
    ASSERT_TRUE(index.insert(3, &value));
    index.reset();
    EXPECT_EQ(index.find(3), nullptr);
}

// Or it would believe that it is emptier than it is, and fill up.
TEST(KeyIndex, StillGrowsAfterKeysWereErasedThatAreNotThere) {
    scc::key_index<std::uint32_t, int, spread_hash, 16> index;
    index.reset();
    int value = 0;
    for (std::uint32_t key = 0; key < 16; ++key) {
        ASSERT_TRUE(index.insert(key, &value));
        index.erase(1000 + key);
    }
    EXPECT_EQ(index.find(500), nullptr);
    EXPECT_EQ(index.find(15), &value);
    index.reset();
}

}  // namespace
