// The table that grows with its contents: oldest first under equal keys, before and after growing.
#include "util/bucket_table.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

struct entry {
    scc::list_node link;
    std::uint64_t key;
    int number;
};

std::uint64_t hash_of(const scc::list_node* node) {
    return reinterpret_cast<const entry*>(node)->key;
}

class BucketTable : public ::testing::Test {
  protected:
    BucketTable() { table.reset(); }
    ~BucketTable() override {
        table.clear([](scc::list_node*) {});
    }

    entry* find(std::uint64_t key) {
        return reinterpret_cast<entry*>(table.find(key, [key](const scc::list_node* node) {
            return reinterpret_cast<const entry*>(node)->key == key;
        }));
    }

    void insert(entry& fresh, std::uint64_t key, int number) {
        fresh.key = key;
        fresh.number = number;
        table.insert(&fresh.link);
    }

    // False when the table has enough buckets.
    bool begin_growth() {
        const std::size_t buckets = table.buckets_wanted();
        return buckets != 0 && table.begin_growth(table.allocate_buckets(buckets), buckets);
    }

    void grow() {
        if (begin_growth()) {
            while (table.is_growing()) {
                std::free(table.move_buckets(1));
            }
        }
    }

    std::vector<entry> entries;  // outlives the table's links to it
    scc::bucket_table<hash_of, 4> table;
};

TEST_F(BucketTable, IsEmptyAtFirstAndFindsNothing) {
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(find(0), nullptr);
}

TEST(BucketTableBeforeReset, FindsNothingAndClearsNothing) {
    scc::bucket_table<hash_of, 4> fresh;
    EXPECT_EQ(fresh.find(1, [](const scc::list_node*) { return true; }), nullptr);
    EXPECT_EQ(fresh.buckets_wanted(), 0U);
    fresh.clear([](scc::list_node*) { FAIL() << "released what was never there"; });
    EXPECT_EQ(fresh.size(), 0U);
}

TEST_F(BucketTable, FindsTheOldestOfEqualKeysFirst) {
    entries.resize(3);
    for (int i = 0; i < 3; ++i) {
        insert(entries[static_cast<std::size_t>(i)], 9, i);
    }
    for (int i = 0; i < 3; ++i) {
        entry* oldest = find(9);
        ASSERT_NE(oldest, nullptr);
        EXPECT_EQ(oldest->number, i);
        table.erase(&oldest->link);
    }
    EXPECT_EQ(find(9), nullptr);
    EXPECT_EQ(table.size(), 0U);
}

TEST_F(BucketTable, TellsKeysOfOneBucketApart) {
    entries.resize(3);
    insert(entries[0], 1, 10);
    insert(entries[1], 5, 50);
    insert(entries[2], 9, 90);
    EXPECT_EQ(find(5)->number, 50);
    EXPECT_EQ(find(9)->number, 90);
    EXPECT_EQ(find(13), nullptr);
}

TEST_F(BucketTable, GrowingKeepsEveryEntryAndTheOrderOfEqualKeys) {
    entries.resize(1000);
    for (int i = 0; i < 1000; ++i) {
        insert(entries[static_cast<std::size_t>(i)], static_cast<std::uint64_t>(i % 500), i);
        if (i % 3 == 0) {
            grow();
        }
    }
    grow();
    EXPECT_EQ(table.size(), 1000U);
    for (int i = 0; i < 1000; ++i) {
        entry* oldest = find(static_cast<std::uint64_t>(i % 500));
        ASSERT_NE(oldest, nullptr) << i;
        EXPECT_EQ(oldest->number, i);
        table.erase(&oldest->link);
    }
    EXPECT_EQ(table.size(), 0U);
}

TEST_F(BucketTable, ClearingReleasesEachEntryOnceAndTheTableIsUsableAgain) {
    entries.resize(100);
    for (int i = 0; i < 100; ++i) {
        insert(entries[static_cast<std::size_t>(i)], static_cast<std::uint64_t>(i), i);
    }
    grow();
    std::vector<int> released(100);
    table.clear([&](scc::list_node* node) {
        ++released[static_cast<std::size_t>(reinterpret_cast<entry*>(node)->number)];
    });
    EXPECT_EQ(released, std::vector<int>(100, 1));
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(find(5), nullptr);
    insert(entries[0], 5, 55);
    EXPECT_EQ(find(5)->number, 55);
}

TEST_F(BucketTable, FollowsAModelThroughRandomChanges) {
    std::mt19937_64 random(3);
    entries.resize(5000);
    std::unordered_map<std::uint64_t, std::vector<int>> model;
    std::size_t held = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::uint64_t key = random() % 700 * 0x10001;
        insert(entries[i], key, static_cast<int>(i));
        model[key].push_back(static_cast<int>(i));
        ++held;
        const std::uint64_t chosen = random() % 700 * 0x10001;
        std::vector<int>& expected = model[chosen];
        entry* found = find(chosen);
        ASSERT_EQ(found == nullptr, expected.empty());
        if (found != nullptr && random() % 3 == 0) {
            ASSERT_EQ(found->number, expected.front());
            table.erase(&found->link);
            expected.erase(expected.begin());
            --held;
        }
        if (i % 64 == 0) {
            begin_growth();
        } else if (i % 3 == 0) {
            std::free(table.move_buckets(2));
        }
    }
    EXPECT_EQ(table.size(), held);
}

TEST_F(BucketTable, KeepsTheOrderOfEqualKeysWhileBucketsMove) {
    entries.resize(64);
    for (int i = 0; i < 16; ++i) {
        insert(entries[static_cast<std::size_t>(i)], static_cast<std::uint64_t>(i % 8), i);
    }
    ASSERT_TRUE(begin_growth());
    EXPECT_EQ(table.buckets_wanted(), 0U);
    for (int moved = 0; moved < 4; ++moved) {
        for (int key = 0; key < 8; ++key) {
            const int number = 16 + moved * 8 + key;
            insert(entries[static_cast<std::size_t>(number)], static_cast<std::uint64_t>(key), number);
        }
        EXPECT_TRUE(table.is_growing());
        EXPECT_EQ(table.move_buckets(1), nullptr);  // the first table is part of the object
    }
    EXPECT_FALSE(table.is_growing());
    EXPECT_EQ(table.size(), 48U);
    for (int number = 0; number < 48; ++number) {
        entry* oldest = find(static_cast<std::uint64_t>(number % 8));
        ASSERT_NE(oldest, nullptr) << number;
        EXPECT_EQ(oldest->number, number);
        table.erase(&oldest->link);
    }
}

TEST_F(BucketTable, MovesNoMoreBucketsThanItIsTold) {
    entries.resize(16);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        insert(entries[i], i, 0);
    }
    ASSERT_TRUE(begin_growth());
    EXPECT_EQ(table.move_buckets(3), nullptr);
    EXPECT_TRUE(table.is_growing());
    EXPECT_EQ(table.move_buckets(100), nullptr);
    EXPECT_FALSE(table.is_growing());
    EXPECT_EQ(table.move_buckets(1), nullptr);
}

TEST_F(BucketTable, HandsTheFormerTableOutOnce) {
    entries.resize(200);
    for (std::size_t i = 0; i < 10; ++i) {
        insert(entries[i], i, 0);
    }
    grow();
    for (std::size_t i = 10; i < entries.size(); ++i) {
        insert(entries[i], i, 0);
    }
    ASSERT_TRUE(begin_growth());
    scc::list_node* former = table.move_buckets(1000);
    EXPECT_NE(former, nullptr);
    std::free(former);
    EXPECT_EQ(table.move_buckets(1000), nullptr);
}

TEST_F(BucketTable, ClearingWhileItGrowsReleasesEachEntryOnce) {
    entries.resize(100);
    for (int i = 0; i < 100; ++i) {
        insert(entries[static_cast<std::size_t>(i)], static_cast<std::uint64_t>(i), i);
    }
    ASSERT_TRUE(begin_growth());
    EXPECT_EQ(table.move_buckets(2), nullptr);
    std::vector<int> released(100);
    table.clear([&](scc::list_node* node) {
        ++released[static_cast<std::size_t>(reinterpret_cast<entry*>(node)->number)];
    });
    EXPECT_EQ(released, std::vector<int>(100, 1));
    EXPECT_FALSE(table.is_growing());
    EXPECT_EQ(table.size(), 0U);
    insert(entries[0], 5, 55);
    EXPECT_EQ(find(5)->number, 55);
}

TEST_F(BucketTable, WantsBucketsForTwiceItsEntriesOnceItHasAsManyAsBuckets) {
    entries.resize(20);
    for (std::size_t i = 0; i < 3; ++i) {
        insert(entries[i], i, 0);
    }
    EXPECT_EQ(table.buckets_wanted(), 0U);
    insert(entries[3], 3, 0);
    EXPECT_EQ(table.buckets_wanted(), 8U);
    insert(entries[4], 4, 0);
    EXPECT_EQ(table.buckets_wanted(), 16U);
    ASSERT_TRUE(begin_growth());
    for (std::size_t i = 5; i < 20; ++i) {
        insert(entries[i], i, 0);
        EXPECT_EQ(table.buckets_wanted(), 0U) << "it grows";
    }
    EXPECT_EQ(table.move_buckets(4), nullptr);
    EXPECT_EQ(table.buckets_wanted(), 64U);
}

TEST_F(BucketTable, RefusesAsManyBucketsAsItHas) {
    entries.resize(4);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        insert(entries[i], i, 0);
    }
    scc::list_node* heads = table.allocate_buckets(8);
    ASSERT_NE(heads, nullptr);
    EXPECT_FALSE(table.begin_growth(heads, 4));
    EXPECT_FALSE(table.is_growing());
    EXPECT_TRUE(table.begin_growth(heads, 8));
}

TEST_F(BucketTable, RefusesBucketsThatItNoLongerNeeds) {
    entries.resize(100);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        insert(entries[i], i, 0);
    }
    const std::size_t buckets = table.buckets_wanted();
    scc::list_node* heads = table.allocate_buckets(buckets);
    ASSERT_NE(heads, nullptr);
    table.clear([](scc::list_node*) {});
    EXPECT_FALSE(table.begin_growth(heads, buckets));
    std::free(heads);
}

TEST_F(BucketTable, OnceGrownALookupComparesOneEntry) {
    entries.resize(65);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        insert(entries[i], i, 0);
    }
    grow();
    for (std::uint64_t key = 0; key < entries.size(); ++key) {
        int compared = 0;
        EXPECT_NE(table.find(key,
                             [&](const scc::list_node* node) {
                                 ++compared;
                                 return hash_of(node) == key;
                             }),
                  nullptr);
        EXPECT_EQ(compared, 1) << key;
    }
}

TEST_F(BucketTable, GrowingAgainAndAgainGivesTheEarlierTablesBack) {
    const std::size_t before =
        mallinfo2().uordblks;  // 0 under the address sanitizer, which finds leaks itself
    for (int life = 0; life < 200; ++life) {
        entries.assign(600, {});
        for (std::size_t i = 0; i < entries.size(); ++i) {
            insert(entries[i], i, 0);
            grow();
        }
        table.clear([](scc::list_node*) {});
    }
    EXPECT_LE(mallinfo2().uordblks, before + (std::size_t{128} << 10U));
}

TEST_F(BucketTable, ClearsEveryBucket) {
    entries.resize(4);
    for (std::size_t i = 0; i < 4; ++i) {
        insert(entries[i], i, static_cast<int>(i));
    }
    int released = 0;
    table.clear([&released](scc::list_node*) { ++released; });
    EXPECT_EQ(released, 4);
}

}  // namespace
