// The index by key: against a standard map over a long random life, and without memory.
#include "util/key_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

// Few distinct hashes, so that long runs of neighbours form and wrap round the end of the table.
std::uint64_t crowded_hash(const std::uint32_t& key) {
    return key % 7 == 0 ? 15 : key % 5;
}

std::uint64_t spread_hash(const std::uint32_t& key) {
    return key * 0x9E3779B97F4A7C15ULL >> 20U;
}

template <auto HashOf>
void live_beside_a_map(std::uint32_t keys, int steps) {
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
}

}  // namespace
