// The client's copy of the ACLs: hash, order, duplicates, renumbering, deletion, and large numbers of ACLs
// and ACEs.
#include "client/acl_cache.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "client/client_data.h"
#include "client/diagnostics.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "support/log_capture.h"
#include "support/wire_bytes.h"

using test::bytes;
using test::wire;

namespace {

using texts = std::vector<std::string>;
using numbers = std::vector<std::uint32_t>;

scc_acl_key key_of(std::uint32_t vdev, std::uint32_t app, std::uint32_t id, std::uint32_t acl_class = 0) {
    return {vdev, app, id, acl_class};
}

scc_ace_record ace_of(std::uint32_t sn, std::uint32_t ace_id) {
    scc_ace_record ace = test::patterned<scc_ace_record>(static_cast<std::uint8_t>(ace_id));
    ace.sn = sn;
    ace.ace_id = ace_id;
    return ace;
}

class AclCache : public ::testing::Test {
  protected:
    AclCache() { _scc_lib_data_init(); }
    ~AclCache() override { _scc_lib_data_free(); }

    static std::uint64_t held() {
        const scc::write_guard guard(scc::acl_lock);
        return scc::cached_acl_count();
    }

    struct view {
        scc_acl_key key{};
        std::uint64_t ace_count = 0;
        std::uint32_t sn_start = 0;
        std::uint32_t sn_inc = 0;
        numbers sns;
        numbers ids;
    };

    // What is cached under a key, in list order, read forwards and checked backwards.
    static view look(const scc_acl_key& key) {
        const scc::write_guard guard(scc::acl_lock);
        view seen;
        scc::cached_acl* acl = _scc_acl_get(&key);
        EXPECT_NE(acl, nullptr);
        if (acl == nullptr) {
            return seen;
        }
        seen.key = acl->key;
        seen.ace_count = acl->ace_count;
        seen.sn_start = acl->sn_start;
        seen.sn_inc = acl->sn_inc;
        const scc::list_node* before = &acl->aces;
        for (scc::list_node* link = acl->aces.next; link != &acl->aces; link = link->next) {
            EXPECT_EQ(link->prev, before);
            before = link;
            seen.sns.push_back(scc::ace_of_link(link)->record.sn);
            seen.ids.push_back(scc::ace_of_link(link)->record.ace_id);
        }
        EXPECT_EQ(acl->aces.prev, before);
        EXPECT_EQ(seen.ace_count, seen.sns.size());
        return seen;
    }

    static bool is_held(const scc_acl_key& key) {
        const scc::write_guard guard(scc::acl_lock);
        return _scc_acl_get(&key) != nullptr;
    }

    // The ACLs of a bucket in chain order, by acl id.
    static numbers chain(std::uint32_t bucket) {
        const scc::write_guard guard(scc::acl_lock);
        numbers ids;
        scc::list_node* head = scc::acl_bucket(bucket);
        for (scc::list_node* node = head->next; node != head; node = node->next) {
            ids.push_back(reinterpret_cast<scc::cached_acl*>(node)->key.acl_id);
        }
        return ids;
    }

    static void add_aces(const scc_acl_key& key,
                         const std::vector<std::pair<std::uint32_t, std::uint32_t>>& aces) {
        for (const auto& [sn, id] : aces) {
            const scc_ace_record ace = ace_of(sn, id);
            _scc_lib_ace_add(&key, &ace);
        }
    }

    const scc_acl_key key = key_of(1, 2, 3, 4);
};

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

// ---- renumbering --------------------------------------------------------------------------------------

class Resequence : public AclCache {
  protected:
    // The numbers after renumbering ACEs of these numbers.
    numbers renumbered(const numbers& before, std::uint32_t start, std::uint32_t increment) {
        _scc_lib_acl_del(&key);
        _scc_lib_acl_add(&key);
        std::uint32_t id = 0;
        for (const std::uint32_t sn : before) {
            add_aces(key, {{sn, ++id}});
        }
        _scc_lib_acl_reseq(&key, start, increment);
        return look(key).sns;
    }
};

TEST_F(Resequence, EqualNumbersStayEqualAndTheLargestStay) {
    EXPECT_EQ(renumbered({5, 5, 7, 0x7FFFFFFF}, 10, 10), (numbers{10, 10, 20, 0x7FFFFFFF}));
    EXPECT_EQ(renumbered({3, 9, 9, 9, 12}, 1, 1), (numbers{1, 2, 2, 2, 3}));
}

TEST_F(Resequence, NumbersFrom0x7FFFFFFFOnNeitherChangeNorAdvance) {
    EXPECT_EQ(renumbered({1, 0x7FFFFFFE, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, 100, 5),
              (numbers{100, 105, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}));
}

TEST_F(Resequence, ALeadingZeroStaysZeroWithAllItsEquals) {
    EXPECT_EQ(renumbered({0, 0, 4, 6}, 10, 10), (numbers{0, 0, 10, 20}));
    EXPECT_EQ(renumbered({0}, 10, 10), (numbers{0}));
}

TEST_F(Resequence, KeepsStartAndIncrementInTheAcl) {
    renumbered({1}, 30, 7);
    EXPECT_EQ(look(key).sn_start, 30U);
    EXPECT_EQ(look(key).sn_inc, 7U);
    EXPECT_EQ(renumbered({}, 0x7FFFFFFF, 0x7FFFFFFF), numbers{});
    EXPECT_EQ(look(key).sn_start, 0x7FFFFFFFU);
    EXPECT_EQ(look(key).sn_inc, 0x7FFFFFFFU);
}

TEST_F(Resequence, StartAndIncrementBelowOneAreRefused) {
    renumbered({5, 6}, 10, 10);
    const auto refused = [this](const scc_acl_key* k, std::uint32_t start, std::uint32_t increment) {
        const test::debugging on;
        _scc_lib_acl_reseq(k, start, increment);
        EXPECT_EQ(look(key).sns, (numbers{10, 20}));
        EXPECT_EQ(look(key).sn_start, 10U);
        return test::log_texts();
    };
    char expected[128];
    const auto text = [&](const scc_acl_key* k, int start, int increment) {
        std::snprintf(expected, sizeof expected, "scclib param invalid. acl_info:%p, sn_start:%d, sn_inc:%d.",
                      static_cast<const void*>(k), start, increment);
        return texts{expected};
    };
    EXPECT_EQ(refused(nullptr, 1, 1), text(nullptr, 1, 1));
    EXPECT_EQ(refused(&key, 0, 1), text(&key, 0, 1));
    EXPECT_EQ(refused(&key, 0x80000000U, 1), text(&key, INT32_MIN, 1));
    EXPECT_EQ(refused(&key, 1, 0), text(&key, 1, 0));
    EXPECT_EQ(refused(&key, 1, 0xFFFFFFFFU), text(&key, 1, -1));
}

// A large start puts small numbers after larger ones: the list is then no longer ascending, and later
// operations use list order.
TEST_F(Resequence, ALargeStartLeavesTheListUnsortedAndLaterCallsWalkItInOrder) {
    EXPECT_EQ(renumbered({1, 2, 3, 0x7FFFFFFF}, 0x7FFFFFFE, 0x7FFFFFFF),
              (numbers{0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF}));
    // Before the first greater one, in list order.
    add_aces(key, {{0x7FFFFFFD, 9}});
    EXPECT_EQ(look(key).sns, (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF}));
    add_aces(key, {{0xFFFFFFFF, 10}});
    EXPECT_EQ(look(key).sns,
              (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFC, 0x7FFFFFFF, 0xFFFFFFFF}));
    // Deleted though a greater number comes before it.
    const scc_ace_record target = ace_of(0x7FFFFFFC, 3);
    const test::debugging on;
    _scc_lib_ace_del(&key, &target);
    EXPECT_EQ(test::log_texts(), texts{"delete specific ace done."});
    EXPECT_EQ(look(key).sns, (numbers{0x7FFFFFFD, 0x7FFFFFFE, 0xFFFFFFFD, 0x7FFFFFFF, 0xFFFFFFFF}));
    const scc::write_guard guard(scc::acl_lock);
    scc::cached_acl* acl = _scc_acl_get(&key);
    EXPECT_EQ(scc::find_ace(*acl, 0x7FFFFFFF)->record.ace_id, 4U);
    EXPECT_EQ(scc::find_ace(*acl, 0x7FFFFFFC), nullptr);
}

TEST_F(Resequence, InALongUnsortedListANewAceStillStandsInFrontOfTheFirstThatIsGreater) {
    numbers expected = renumbered({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 0x40000000, 0x40000001);
    EXPECT_EQ(expected, (numbers{0x40000000, 0x80000001, 0xC0000002, 0x00000003, 0x40000004, 0x80000005,
                                 0xC0000006, 0x00000007, 0x40000008, 0x80000009}));
    add_aces(key, {{0x50000000, 11}});
    expected.insert(expected.begin() + 1, 0x50000000);
    EXPECT_EQ(look(key).sns, expected);
    const scc_ace_record target = ace_of(0x00000007, 8);
    _scc_lib_ace_del(&key, &target);
    expected.erase(std::find(expected.begin(), expected.end(), 0x00000007U));
    EXPECT_EQ(look(key).sns, expected);
}

TEST_F(Resequence, AZeroAfterOtherNumbersIsRenumberedLikeAny) {
    // The third number wraps to 0.
    EXPECT_EQ(renumbered({1, 2, 3}, 0x7FFFFFFE, 0x40000001), (numbers{0x7FFFFFFE, 0xBFFFFFFF, 0}));
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 0xBFFFFFFF, 20}));
}

TEST_F(Resequence, EqualNumbersStayEqualWhereOnlyUnnumberedOnesStandBetweenThem) {
    // The last number wraps to that of the first.
    const numbers wrapped{5, 0x40000005, 0x80000005, 0xC0000005, 5};
    EXPECT_EQ(renumbered({1, 2, 3, 4, 6}, 5, 0x40000000), wrapped);
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 20, 0x80000005, 0xC0000005, 30})) << "another number stood between";
    EXPECT_EQ(renumbered({1, 2, 3, 4, 6}, 5, 0x40000000), wrapped);
    const scc_ace_record between = ace_of(0x40000005, 2);
    _scc_lib_ace_del(&key, &between);
    _scc_lib_acl_reseq(&key, 10, 10);
    EXPECT_EQ(look(key).sns, (numbers{10, 0x80000005, 0xC0000005, 10}));
}

TEST_F(Resequence, OfAWrappedListDeletesTheFirstInListOrder) {
    renumbered({1, 2, 3, 4, 6}, 5, 0x40000000);
    const scc_ace_record last = ace_of(5, 5);
    _scc_lib_ace_del(&key, &last);
    EXPECT_EQ(look(key).ids, (numbers{1, 2, 3, 4})) << "the number alone was compared";
    const scc_ace_record again = ace_of(0xFFFFFFF0, 1);
    _scc_lib_ace_add(&key, &again);
    EXPECT_EQ(look(key).ids, (numbers{1, 2, 3, 4, 1}));
    const scc_ace_record first = ace_of(5, 1);
    _scc_lib_ace_del(&key, &first);
    EXPECT_EQ(look(key).ids, (numbers{2, 3, 4, 1}));
}

TEST_F(Resequence, WithoutAKeyTheLineShowsANullPointer) {
    const test::debugging on;
    _scc_lib_acl_reseq(nullptr, 10, 0x80000000U);
    EXPECT_EQ(test::log_texts(),
              texts{"scclib param invalid. acl_info:(nil), sn_start:10, sn_inc:-2147483648."});
}

// ---- confirmed calls ----------------------------------------------------------------------------------

class CacheUpdate : public AclCache {
  protected:
    static void confirm(std::uint32_t kind, const bytes& data) {
        ASSERT_EQ(_scc_lib_save_call_data(1, kind, data.data(), static_cast<int>(data.size())), 0U);
        scc::pending_call* call = scc::take_pending_call(1);
        ASSERT_NE(call, nullptr);
        _scc_lib_acl_update(call);
        scc::release_pending_call(call);
    }

    const bytes packed_key = wire().u32(1).u32(2).u32(3).u32(4);
};

TEST_F(CacheUpdate, FollowsTheFiveKindsThatChangeAnAcl) {
    const bytes ace = wire().zeros(220).u32(50).u32(6).to(912);
    confirm(31, packed_key);
    EXPECT_TRUE(is_held(key));
    confirm(33, wire().add(packed_key).add(ace));
    EXPECT_EQ(look(key).sns, numbers{50});
    EXPECT_EQ(look(key).ids, numbers{6});
    confirm(40, wire().add(packed_key).u32(7).u32(9));
    EXPECT_EQ(look(key).sns, numbers{7});
    EXPECT_EQ(look(key).sn_inc, 9U);
    confirm(34, wire().add(packed_key).zeros(220).u32(7).u32(6).to(928));
    EXPECT_EQ(look(key).sns, numbers{});
    confirm(32, packed_key);
    EXPECT_FALSE(is_held(key));
}

TEST_F(CacheUpdate, AnyOtherKindIsLoggedAndChangesNothing) {
    for (const std::uint32_t kind : {0U, 27U, 30U, 35U, 36U, 37U, 38U, 39U, 41U, 42U, 43U, 47U, 61U}) {
        const test::debugging on;
        confirm(kind, wire().add(packed_key).to(928));
        EXPECT_EQ(test::log_texts(), texts{"unknown scclib call id(" + std::to_string(kind) + ")"});
    }
    EXPECT_EQ(held(), 0U);
}

TEST_F(CacheUpdate, WithoutARecordDoesNothing) {
    const test::debugging on;
    _scc_lib_acl_update(nullptr);
    EXPECT_TRUE(test::captured_log().empty());
}

TEST_F(CacheUpdate, WithoutSavedDataIsAnUnknownKind) {
    const test::debugging on;
    for (const std::uint32_t kind : {31U, 32U, 33U, 34U, 40U}) {
        confirm(kind, {});
        EXPECT_TRUE(test::logged("unknown scclib call id(" + std::to_string(kind) + ")"));
    }
    EXPECT_EQ(held(), 0U);
}

// Like an ACL that another application created, or whose creation was not confirmed.
TEST_F(CacheUpdate, OfAnAceWhoseAclIsNotHeldKeepsNothing) {
    const test::debugging on;
    const bytes data = wire().add(packed_key).zeros(220).u32(50).u32(6).to(928);
    ASSERT_EQ(_scc_lib_save_call_data(1, 33, data.data(), static_cast<int>(data.size())), 0U);
    scc::pending_call* call = scc::take_pending_call(1);
    ASSERT_NE(call, nullptr);
    EXPECT_FALSE(scc::take_into_cache(call, scc::acl_cache_revision()));
    scc::release_pending_call(call);
    EXPECT_EQ(test::log_texts(), texts{"specific acl not found!!!"});
    EXPECT_EQ(held(), 0U);
}

// Its block is not an ACE's and cannot be kept.
TEST_F(CacheUpdate, OfAnAceWithLongerDataCopiesTheAce) {
    confirm(31, packed_key);
    const bytes data = wire().add(packed_key).zeros(220).u32(50).u32(6).to(1000);
    ASSERT_EQ(_scc_lib_save_call_data(1, 33, data.data(), static_cast<int>(data.size())), 0U);
    scc::pending_call* call = scc::take_pending_call(1);
    ASSERT_NE(call, nullptr);
    EXPECT_FALSE(scc::take_into_cache(call, scc::acl_cache_revision()));
    scc::release_pending_call(call);
    EXPECT_EQ(look(key).sns, numbers{50});
}

TEST_F(CacheUpdate, LogsNothingWhileTheSwitchIsOff) {
    test::clear_log();
    _scc_lib_acl_add(nullptr);
    _scc_lib_acl_reseq(nullptr, 1, 1);
    EXPECT_EQ(test::log_texts(), texts{});
    EXPECT_EQ(held(), 0U);
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

std::size_t allocated_bytes() {
    return mallinfo2().uordblks;  // 0 under the address sanitizer, which looks for leaks itself
}

// More than the allocator keeps of freed blocks, far less than a leak of any of the tests below.
constexpr std::size_t noise = std::size_t{128} << 10U;

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
    hold(140);
    const std::size_t before = allocated_bytes();
    scc::grow_acl_index();
    const std::size_t larger = allocated_bytes();
    EXPECT_TRUE(before == 0 || larger > before) << "not counted under a sanitizer";
    scc::grow_acl_index();
    EXPECT_EQ(allocated_bytes(), larger);
    hold(140, 2);
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

// ---- whether a list is in order -------------------------------------------------------------------------

class Order : public Resequence {
  protected:
    std::uint64_t out_of_order() const {
        const scc::write_guard guard(scc::acl_lock);
        return _scc_acl_get(&key)->out_of_order;
    }
};

TEST_F(Order, IsLostWhenNumbersDescendAndFoundAgainByTheNextResequence) {
    renumbered({1, 2, 3, 4, 6}, 5, 0x40000000);
    EXPECT_EQ(out_of_order(), 1U);
    renumbered({1, 2, 3}, 0x7FFFFFFE, 0x40000001);
    EXPECT_EQ(out_of_order(), 1U);
    _scc_lib_acl_reseq(&key, 1, 1);
    EXPECT_EQ(look(key).sns, (numbers{1, 0xBFFFFFFF, 2}));
    EXPECT_EQ(out_of_order(), 1U);
    const scc_ace_record large = ace_of(0xBFFFFFFF, 2);
    _scc_lib_ace_del(&key, &large);
    _scc_lib_acl_reseq(&key, 1, 1);
    EXPECT_EQ(out_of_order(), 0U);
}

TEST_F(Order, IsKeptByEqualNumbersAndByALeadingZero) {
    renumbered({5, 5, 7}, 10, 10);
    EXPECT_EQ(out_of_order(), 0U);
    renumbered({0, 0, 7}, 10, 10);
    EXPECT_EQ(out_of_order(), 0U);
}

// ---- calls that are short, stale or not taken over ------------------------------------------------------

class TakeOver : public CacheUpdate {
  protected:
    // A block of a confirmed call; the caller releases it.
    static scc::pending_call* call_of(std::uint32_t kind, const bytes& data) {
        EXPECT_EQ(_scc_lib_save_call_data(1, kind, data.data(), static_cast<int>(data.size())), 0U);
        return scc::take_pending_call(1);
    }
    static bool taken(std::uint32_t kind, const bytes& data) {
        scc::pending_call* call = call_of(kind, data);
        const bool result = scc::take_into_cache(call, scc::acl_cache_revision());
        if (!result) {
            scc::release_pending_call(call);
        }
        return result;
    }
};

TEST_F(TakeOver, AChangeWithLessDataThanItsKindNeedsIsRefused) {
    _scc_lib_acl_add(&key);
    const test::debugging on;
    for (const auto& [kind, size] : std::vector<std::pair<std::uint32_t, std::size_t>>{
             {31, 15}, {32, 15}, {33, 927}, {34, 927}, {40, 23}}) {
        bytes data = wire().add(packed_key).zeros(912);
        data.resize(size);
        test::clear_log();
        confirm(kind, data);
        EXPECT_EQ(test::log_texts(), texts{"unknown scclib call id(" + std::to_string(kind) + ")"});
    }
    EXPECT_EQ(look(key).ace_count, 0U);
}

TEST_F(TakeOver, OnlyAnAceOfAKnownAclAndOfExactlyItsSizeIsTakenOver) {
    bytes ace = wire().add(packed_key).zeros(220).u32(50).u32(6).to(928);
    ace.back() = 1;
    EXPECT_FALSE(taken(33, ace)) << "there is no such ACL";
    EXPECT_FALSE(taken(31, packed_key)) << "its key is copied";
    EXPECT_FALSE(taken(27, ace)) << "no change of the cache";
    EXPECT_TRUE(taken(33, ace));
    EXPECT_FALSE(taken(33, wire().add(ace).u8(1))) << "the record is copied";
    EXPECT_EQ(look(key).ids, (numbers{6, 6}));
}

TEST_F(TakeOver, ARecordThatEndsInZerosIsCopiedAndItsBlockIsFreeAgain) {
    _scc_lib_acl_add(&key);
    EXPECT_FALSE(taken(33, wire().add(packed_key).zeros(220).u32(50).u32(6).to(928)));
    EXPECT_EQ(look(key).ids, numbers{6});
}

// One byte that is not zero, at each place of the record but the link's: the zeros before it are kept, those
// after it are not, or in steps.
TEST_F(TakeOver, ARecordIsReadBackWholeHoweverManyZerosItEndsIn) {
    std::uint32_t blocks_taken = 0;
    for (const bool is_confirmed : {false, true}) {
        for (std::size_t place = 16; place < sizeof(scc_ace_record); ++place) {
            bytes data = wire().add(packed_key).zeros(sizeof(scc_ace_record));
            data[packed_key.size() + place] = 0x80;
            scc_ace_record ace{};
            std::memcpy(&ace, data.data() + packed_key.size(), sizeof ace);
            _scc_lib_acl_add(&key);
            if (is_confirmed) {
                blocks_taken += taken(33, data) ? 1 : 0;
            } else {
                _scc_lib_ace_add(&key, &ace);
            }
            scc_ace_record read = test::patterned<scc_ace_record>(0x55);
            {
                const scc::write_guard guard(scc::acl_lock);
                const scc::cached_ace* found = scc::find_ace(*_scc_acl_get(&key), ace.sn);
                ASSERT_NE(found, nullptr) << place;
                scc::read_record(*found, read);
            }
            ASSERT_EQ(test::slice(test::record_bytes(read), 16, 896),
                      test::slice(test::record_bytes(ace), 16, 896))
                << place;
            _scc_lib_acl_del(&key);
        }
    }
    EXPECT_GT(blocks_taken, 0U);
    EXPECT_LE(blocks_taken, 136U) << "only a record that ends in a byte that is not zero fills its block";
}

TEST_F(TakeOver, TheZerosAtTheEndOfARecordTakeNoMemory) {
    _scc_lib_acl_add(&key);
    constexpr std::size_t count = 1000;
    const std::size_t before = allocated_bytes();
    for (std::uint32_t sn = 1; sn <= count; ++sn) {
        scc_ace_record ace{};
        ace.sn = sn;
        _scc_lib_ace_add(&key, &ace);
    }
    EXPECT_LE(allocated_bytes(), before + count * 300);
    EXPECT_EQ(look(key).ace_count, count);
}

TEST_F(TakeOver, ABlockThatTheCacheTookIsFreedWithItsAce) {
    const std::size_t before = allocated_bytes();
    for (std::uint32_t round = 0; round < 1000; ++round) {
        _scc_lib_acl_add(&key);
        const scc_ace_record ace = ace_of(round, 1);
        const auto record = test::record_bytes(ace);
        for (int copies = 0; copies < 2; ++copies) {
            ASSERT_TRUE(taken(33, wire().add(packed_key).add(bytes(record.begin(), record.end()))));
        }
        _scc_lib_ace_del(&key, &ace);
        ASSERT_EQ(look(key).ace_count, 1U);
        _scc_lib_acl_del(&key);
    }
    EXPECT_LE(allocated_bytes(), before + noise);
}

TEST_F(TakeOver, ACallOfARevisionThatWasEmptiedSinceChangesNothing) {
    scc::pending_call* call = call_of(31, packed_key);
    const std::uint32_t revision = scc::acl_cache_revision();
    scc::free_acl_cache();
    EXPECT_FALSE(scc::take_into_cache(call, revision));
    scc::release_pending_call(call);
    EXPECT_FALSE(is_held(key));
}

}  // namespace
