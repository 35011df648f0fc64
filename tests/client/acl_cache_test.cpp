// The client's copy of the ACLs: hash, order, duplicates, renumbering, deletion, and large numbers of ACLs
// and ACEs.
#include "client/acl_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "client/acl_cache_support.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "support/log_capture.h"
#include "support/wire_bytes.h"

using test::ace_of;
using test::AclCache;
using test::allocated_bytes;
using test::key_of;
using test::noise;
using test::numbers;

namespace {

using texts = std::vector<std::string>;

// ---- the key ------------------------------------------------------------------------------------------

TEST_F(AclCache, TheKeyCheckTakesAclIdsOneTo32768AndAppTypesOneTo58) {
    struct checked {
        std::uint32_t app, id, result;
        const char* text;
    };
    const char* bad_id = "acl id is invalid (<1 or >32768).";
    const checked rows[] = {
        {1, 1, 0, ""},
        {58, 32768, 0, ""},
        {1, 0, 22, bad_id},
        {1, 32769, 22, bad_id},
        {1, 0x80000000U, 22, bad_id},
        {1, 0xFFFFFFFFU, 22, bad_id},
        {0, 0, 22, bad_id},
        {0, 1, 22, "acl app_type(0) is invalid"},
        {59, 1, 22, "acl app_type(59) is invalid"},
        {0x7FFFFFFFU, 1, 22, "acl app_type(2147483647) is invalid"},
        {0xFFFFFFFFU, 1, 22, "acl app_type(-1) is invalid"},
    };
    for (const checked& row : rows) {
        const test::debugging on;
        const scc_acl_key candidate = key_of(0xFFFFFFFFU, row.app, row.id, 0xFFFFFFFFU);
        EXPECT_EQ(_scc_lib_acl_info_check(&candidate), row.result) << row.app << " " << row.id;
        EXPECT_EQ(test::log_texts(), *row.text == '\0' ? texts{} : texts{row.text});
    }
    const test::debugging on;
    EXPECT_EQ(_scc_lib_acl_info_check(nullptr), 22U);
    EXPECT_EQ(test::log_texts(), texts{"scclib param invalid."});
}

TEST_F(AclCache, TheHashIsTheFoldedSumOfTheFirstTwelveBytes) {
    const auto hash = [](std::uint32_t vdev, std::uint32_t app, std::uint32_t id) {
        const scc_acl_key k = key_of(vdev, app, id, 0xFFFFFFFFU);
        return _acl_hash_idx_get(&k);
    };
    EXPECT_EQ(hash(0, 0, 0), 0U);
    EXPECT_EQ(hash(1, 2, 3), 6U);
    EXPECT_EQ(hash(0, 0, 0x01020304), 10U);
    EXPECT_EQ(hash(0, 58, 32768), 58U + 128U);
    EXPECT_EQ(hash(0xFF, 0xFF, 1), 511U);   // the last sum without a fold
    EXPECT_EQ(hash(0xFF, 0xFF, 2), 1U);     // 512 ^ 1
    EXPECT_EQ(hash(0xFF, 0xFF, 3), 0U);     // 513 ^ 1
    EXPECT_EQ(hash(0xFFFFFFFF, 4, 0), 2U);  // 1024 ^ 2
}

TEST_F(AclCache, TheLargestSumFoldsToo) {
    const scc_acl_key all_ones = key_of(0xFFFFFFFFU, 0xFFFFFFFFU, 0xFFFFFFFFU);
    // 3060 = 0xBF4; 0xBF4 >> 9 = 5; (0xBF4 ^ 5) & 0x1FF = 0x1F1.
    EXPECT_EQ(_acl_hash_idx_get(&all_ones), 0x1F1U);
}

TEST_F(AclCache, TheClassIsInNeitherHashNorLookup) {
    const scc_acl_key other = key_of(1, 2, 3, 99);
    EXPECT_EQ(_acl_hash_idx_get(&key), _acl_hash_idx_get(&other));
    _scc_lib_acl_add(&key);
    EXPECT_EQ(look(other).key.acl_class, 4U);
    const test::debugging on;
    _scc_lib_acl_add(&other);
    EXPECT_EQ(test::log_texts(), texts{"acl already exist!!!"});
    EXPECT_EQ(held(), 1U);
    EXPECT_EQ(look(key).key.acl_class, 4U) << "the stored class was updated";
    _scc_lib_acl_del(&other);
    EXPECT_EQ(held(), 0U);
}

TEST_F(AclCache, VdevAppTypeAndAclIdEachTellAclsApart) {
    const scc_acl_key keys[] = {key_of(1, 2, 3), key_of(2, 1, 3), key_of(3, 2, 1), key_of(0, 3, 3)};
    for (const scc_acl_key& k : keys) {
        EXPECT_EQ(_acl_hash_idx_get(&k), 6U);
        _scc_lib_acl_add(&k);
    }
    EXPECT_EQ(held(), 4U);
    EXPECT_EQ(chain(6), (numbers{3, 3, 1, 3}));
    _scc_lib_acl_del(&keys[1]);
    EXPECT_TRUE(is_held(keys[0]));
    EXPECT_FALSE(is_held(keys[1]));
    EXPECT_TRUE(is_held(keys[2]));
    EXPECT_TRUE(is_held(keys[3]));
}

TEST_F(AclCache, ABucketFillsAtItsTailAndKeepsItsOrderAcrossDeletions) {
    // All of these sum to 16: vdev compensates for the id.
    for (const std::uint32_t id : {9U, 5U, 7U, 1U}) {
        const scc_acl_key k = key_of(15 - id, 1, id);
        _scc_lib_acl_add(&k);
    }
    EXPECT_EQ(chain(16), (numbers{9, 5, 7, 1}));
    const scc_acl_key gone = key_of(10, 1, 5);
    _scc_lib_acl_del(&gone);
    EXPECT_EQ(chain(16), (numbers{9, 7, 1}));
    _scc_lib_acl_add(&gone);
    EXPECT_EQ(chain(16), (numbers{9, 7, 1, 5}));
}

// ---- refusals -----------------------------------------------------------------------------------------

TEST_F(AclCache, NullPointersAreLoggedAndChangeNothing) {
    const scc_ace_record ace = ace_of(1, 1);
    _scc_lib_acl_add(&key);
    const test::debugging on;
    _scc_lib_acl_add(nullptr);
    _scc_lib_acl_del(nullptr);
    _scc_lib_ace_add(nullptr, &ace);
    _scc_lib_ace_add(&key, nullptr);
    _scc_lib_ace_del(nullptr, &ace);
    _scc_lib_ace_del(&key, nullptr);
    EXPECT_EQ(test::log_texts(), texts(6, "invalid input param!!!"));
    EXPECT_EQ(held(), 1U);
    EXPECT_EQ(look(key).ace_count, 0U);
}

TEST_F(AclCache, AnUnknownAclIsLoggedByEveryRoutineThatNeedsOne) {
    const scc_ace_record ace = ace_of(1, 1);
    const test::debugging on;
    _scc_lib_acl_del(&key);
    _scc_lib_ace_add(&key, &ace);
    _scc_lib_ace_del(&key, &ace);
    _scc_lib_acl_reseq(&key, 1, 1);
    EXPECT_EQ(test::log_texts(), texts(4, "specific acl not found!!!"));
    const std::vector<std::string> routines = {"<_scc_lib_acl_del ", "<_scc_lib_ace_add ",
                                               "<_scc_lib_ace_del ", "<_scc_lib_acl_reseq "};
    for (std::size_t i = 0; i < routines.size(); ++i) {
        EXPECT_TRUE(test::captured_log()[i].whole.starts_with(routines[i])) << test::captured_log()[i].whole;
    }
    EXPECT_EQ(held(), 0U);
}

// ---- ACEs ---------------------------------------------------------------------------------------------

TEST_F(AclCache, AcesStandInAscendingOrderAndEqualNumbersInTheOrderOfAdding) {
    _scc_lib_acl_add(&key);
    add_aces(key, {{10, 1}, {5, 2}, {10, 3}, {0xFFFFFFFF, 4}, {0, 5}, {10, 6}, {0x80000000, 7}, {5, 8}});
    const view seen = look(key);
    EXPECT_EQ(seen.sns, (numbers{0, 5, 5, 10, 10, 10, 0x80000000, 0xFFFFFFFF}));
    EXPECT_EQ(seen.ids, (numbers{5, 2, 8, 1, 3, 6, 7, 4}));
    EXPECT_EQ(seen.sn_start, 0U);
    EXPECT_EQ(seen.sn_inc, 0U);
}

TEST_F(AclCache, EqualNumbersAndEqualAceIdsAreNotRefused) {
    _scc_lib_acl_add(&key);
    add_aces(key, {{7, 7}, {7, 7}, {7, 7}});
    EXPECT_EQ(look(key).ids, (numbers{7, 7, 7}));
}

TEST_F(AclCache, TheRecordIsCopiedAfterItsLink) {
    _scc_lib_acl_add(&key);
    const scc_ace_record ace = ace_of(9, 33);
    _scc_lib_ace_add(&key, &ace);
    const scc::write_guard guard(scc::acl_lock);
    scc::cached_ace* kept = scc::find_ace(*_scc_acl_get(&key), 9);
    ASSERT_NE(kept, nullptr);
    scc_ace_record read{};
    scc::read_record(*kept, read);
    EXPECT_EQ(test::slice(test::record_bytes(read), 16, 896), test::slice(test::record_bytes(ace), 16, 896));
}

// With zeros at the end, which are not kept, and without.
TEST_F(AclCache, ReadingARecordWritesNothingAfterIt) {
    _scc_lib_acl_add(&key);
    scc_ace_record short_one{};
    short_one.sn = 1;
    const scc_ace_record long_one = ace_of(2, 33);
    _scc_lib_ace_add(&key, &short_one);
    _scc_lib_ace_add(&key, &long_one);
    struct {
        scc_ace_record record;
        std::uint8_t after[8];
    } room{};
    const scc::write_guard guard(scc::acl_lock);
    for (const std::uint32_t sn : {1U, 2U}) {
        std::memset(&room, 0xA5, sizeof room);
        scc::read_record(*scc::find_ace(*_scc_acl_get(&key), sn), room.record);
        EXPECT_EQ(test::bytes(std::begin(room.after), std::end(room.after)), test::bytes(8, 0xA5)) << sn;
    }
}

TEST_F(AclCache, DeletingTakesTheFirstAceWhoseNumberAndIdBothMatch) {
    _scc_lib_acl_add(&key);
    add_aces(key, {{10, 1}, {10, 2}, {10, 1}, {20, 1}});
    const test::debugging on;
    const scc_ace_record target = ace_of(10, 1);
    _scc_lib_ace_del(&key, &target);
    EXPECT_EQ(look(key).ids, (numbers{2, 1, 1}));
    _scc_lib_ace_del(&key, &target);
    EXPECT_EQ(look(key).ids, (numbers{2, 1}));
    EXPECT_EQ(look(key).sns, (numbers{10, 20}));
    _scc_lib_ace_del(&key, &target);
    EXPECT_EQ(test::log_texts(),
              (texts{"delete specific ace done.", "delete specific ace done.", "no such ace!!!"}));
}

TEST_F(AclCache, AnAceWithTheNumberAndAnotherIdOrTheIdAndAnotherNumberIsKept) {
    _scc_lib_acl_add(&key);
    add_aces(key, {{10, 1}});
    const test::debugging on;
    for (const scc_ace_record& wrong : {ace_of(10, 2), ace_of(11, 1), ace_of(9, 1)}) {
        _scc_lib_ace_del(&key, &wrong);
    }
    EXPECT_EQ(test::log_texts(), texts(3, "no such ace!!!"));
    EXPECT_EQ(look(key).ace_count, 1U);
}

TEST_F(AclCache, DeletingAnAclTakesItsAcesWithIt) {
    _scc_lib_acl_add(&key);
    add_aces(key, {{1, 1}, {2, 2}, {3, 3}});
    _scc_lib_acl_del(&key);
    EXPECT_EQ(held(), 0U);
    _scc_lib_acl_add(&key);
    EXPECT_EQ(look(key).ace_count, 0U);
}

// ---- release ------------------------------------------------------------------------------------------

TEST_F(AclCache, ReleasingTheDataEmptiesEveryBucketAndForgetsTheCapabilityWord) {
    for (std::uint32_t id = 1; id <= 2000; ++id) {
        const scc_acl_key k = key_of(0, 1, id);
        _scc_lib_acl_add(&k);
        add_aces(k, {{1, 1}});
    }
    scc::set_capability_word(77);
    _scc_lib_data_free();
    EXPECT_EQ(held(), 0U);
    EXPECT_EQ(scc::capability_word(), 0U);
    for (std::uint32_t bucket = 0; bucket < 512; ++bucket) {
        EXPECT_TRUE(chain(bucket).empty());
    }
    _scc_lib_acl_add(&key);
    EXPECT_EQ(held(), 1U);
}

// ---- against models -----------------------------------------------------------------------------------

TEST_F(AclCache, TenThousandAcesInRandomOrderStandAsInAMultimapAndLeaveAsFromOne) {
    _scc_lib_acl_add(&key);
    std::mt19937 random(20240607);
    std::multimap<std::uint32_t, std::uint32_t> model;
    for (std::uint32_t id = 0; id < 10000; ++id) {
        const auto sn = static_cast<std::uint32_t>(random() % 4000);
        add_aces(key, {{sn, id}});
        model.emplace(sn, id);  // after its equals
    }
    const auto expect_equal = [&] {
        numbers sns;
        numbers ids;
        for (const auto& [sn, id] : model) {
            sns.push_back(sn);
            ids.push_back(id);
        }
        const view seen = look(key);
        EXPECT_EQ(seen.sns, sns);
        EXPECT_EQ(seen.ids, ids);
    };
    expect_equal();
    std::vector<std::pair<std::uint32_t, std::uint32_t>> leaving(model.begin(), model.end());
    std::shuffle(leaving.begin(), leaving.end(), random);
    for (std::size_t i = 0; i < leaving.size(); ++i) {
        const scc_ace_record ace = ace_of(leaving[i].first, leaving[i].second);
        _scc_lib_ace_del(&key, &ace);
        const auto [first, last] = model.equal_range(leaving[i].first);
        model.erase(
            std::find_if(first, last, [&](const auto& entry) { return entry.second == leaving[i].second; }));
        if (i == leaving.size() / 2) {
            expect_equal();
        }
    }
    EXPECT_EQ(look(key).ace_count, 0U);
}

TEST_F(AclCache, All32768AclIdsAreHeldFoundAndDeletedInAnyOrder) {
    std::vector<std::uint32_t> ids(32768);
    for (std::uint32_t i = 0; i < ids.size(); ++i) {
        ids[i] = i + 1;
    }
    std::mt19937 random(7);
    std::shuffle(ids.begin(), ids.end(), random);
    for (const std::uint32_t id : ids) {
        const scc_acl_key k = key_of(5, 6, id, id);
        _scc_lib_acl_add(&k);
    }
    EXPECT_EQ(held(), 32768U);
    std::size_t chained = 0;
    for (std::uint32_t bucket = 0; bucket < 512; ++bucket) {
        chained += chain(bucket).size();
    }
    EXPECT_EQ(chained, 32768U);
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const scc_acl_key k = key_of(5, 6, ids[i]);
        ASSERT_TRUE(is_held(k)) << ids[i];
        if (i % 2 == 0) {
            _scc_lib_acl_del(&k);
            ASSERT_FALSE(is_held(k)) << ids[i];
        }
    }
    EXPECT_EQ(held(), 16384U);
}

// ---- what only cost and memory show ---------------------------------------------------------------------

std::size_t depth_below(const scc::rb_node* node) {
    return node == nullptr ? 0 : 1 + std::max(depth_below(node->left), depth_below(node->right));
}

TEST_F(AclCache, AscendingNumbersLeaveAShallowTree) {
    _scc_lib_acl_add(&key);
    for (std::uint32_t sn = 1; sn <= 1000; ++sn) {
        add_aces(key, {{sn, sn}});
    }
    const scc::write_guard guard(scc::acl_lock);
    EXPECT_LE(depth_below(_scc_acl_get(&key)->places.node), 20U);
}

TEST_F(AclCache, DeletedAcesGiveTheirMemoryBack) {
    _scc_lib_acl_add(&key);
    const std::size_t before = allocated_bytes();
    for (std::uint32_t round = 0; round < 1000; ++round) {
        const scc_ace_record ace = ace_of(round, 1);
        _scc_lib_ace_add(&key, &ace);
        _scc_lib_ace_del(&key, &ace);
    }
    EXPECT_LE(allocated_bytes(), before + noise);
}

TEST_F(AclCache, DeletedAclsGiveTheirMemoryBackWithThatOfTheirAces) {
    _scc_lib_acl_add(&key);
    const std::size_t before = allocated_bytes();
    for (std::uint32_t round = 0; round < 2000; ++round) {
        const scc_acl_key k = key_of(9, 2, 1 + round);
        _scc_lib_acl_add(&k);
        add_aces(k, {{1, 1}, {2, 2}});
        _scc_lib_acl_del(&k);
    }
    EXPECT_LE(allocated_bytes(), before + noise);
}

TEST_F(AclCache, ReleasingTheDataGivesBackTheGrownIndex) {
    const std::size_t before = allocated_bytes();
    for (std::uint32_t id = 1; id <= 20000; ++id) {
        const scc_acl_key k = key_of(0, 1, id);
        _scc_lib_acl_add(&k);
    }
    _scc_lib_data_free();
    EXPECT_LE(allocated_bytes(), before + noise);
}

// ---- the index grows ------------------------------------------------------------------------------------

class GrowingIndex : public AclCache {
  protected:
    static void hold(std::uint32_t count, std::uint32_t app_type = 1) {
        for (std::uint32_t id = 1; id <= count; ++id) {
            const scc_acl_key k = key_of(0, app_type, id);
            _scc_lib_acl_add(&k);
        }
    }
    static std::uint32_t found(std::uint32_t count, std::uint32_t app_type = 1) {
        std::uint32_t number = 0;
        for (std::uint32_t id = 1; id <= count; ++id) {
            number += is_held(key_of(0, app_type, id)) ? 1 : 0;
        }
        return number;
    }
};

TEST_F(GrowingIndex, FindsEveryAclWhileTheCheckerGrowsIt) {
    constexpr std::uint32_t most = 30000;
    std::uint32_t passes = 0;
    for (std::uint32_t id = 1; id <= most; ++id) {
        const scc_acl_key k = key_of(0, 1, id);
        _scc_lib_acl_add(&k);
        if (id % 997 == 0) {
            scc::grow_acl_index();
            ++passes;
            EXPECT_EQ(found(id), id);
        }
    }
    EXPECT_EQ(passes, 30U);
    EXPECT_EQ(held(), most);
    for (std::uint32_t id = 1; id <= most; id += 2) {
        const scc_acl_key k = key_of(0, 1, id);
        _scc_lib_acl_del(&k);
    }
    EXPECT_EQ(found(most), most / 2);
}

// 256 slots; half of them full, the checker is due, and three quarters full, the index no longer waits for
// it.
TEST_F(GrowingIndex, GrowsInTimeSoThatAddingAllocatesNothing) {
    const std::size_t empty = allocated_bytes();
    hold(140);
    const std::size_t before = allocated_bytes();
    scc::grow_acl_index();
    const std::size_t larger = allocated_bytes();
    EXPECT_TRUE(before == 0 || larger > before) << "not counted under a sanitizer";
    scc::grow_acl_index();
    EXPECT_EQ(allocated_bytes(), larger);
    hold(140, 2);
    EXPECT_LE(allocated_bytes() - larger, before - empty + 1000) << "more than the ACLs";
    EXPECT_EQ(found(140), 140U);
    EXPECT_EQ(found(140, 2), 140U);
}

TEST_F(GrowingIndex, IsLeftToALaterPassWhileItsLockIsHeld) {
    hold(140);
    const std::size_t before = allocated_bytes();
    ASSERT_EQ(pthread_rwlock_wrlock(&scc_acl_lock), 0);
    scc::grow_acl_index();
    EXPECT_EQ(allocated_bytes(), before);
    pthread_rwlock_unlock(&scc_acl_lock);
    scc::grow_acl_index();
    EXPECT_TRUE(before == 0 || allocated_bytes() > before) << "not counted under a sanitizer";
    EXPECT_EQ(pthread_rwlock_trywrlock(&scc_acl_lock), 0) << "the lock was released";
    pthread_rwlock_unlock(&scc_acl_lock);
    EXPECT_EQ(found(140), 140U);
}

TEST_F(GrowingIndex, AThreadThatAddsAndOneThatGrowsItMissNothing) {
    constexpr std::uint32_t most = 32768;
    std::atomic<bool> done{false};
    std::thread checker([&done] {
        while (!done) {
            scc::grow_acl_index();
        }
    });
    hold(most);
    hold(most, 2);
    done = true;
    checker.join();
    EXPECT_EQ(found(most), most);
    EXPECT_EQ(found(most, 2), most);
}

}  // namespace
