// What confirmed calls change in the ACL cache, and those that are short, stale or not taken over.
#include <cstring>

#include "client/acl_cache_support.h"
#include "client/pending_calls.h"
#include "support/log_capture.h"

using test::ace_of;
using test::AclCache;
using test::allocated_bytes;
using test::bytes;
using test::noise;
using test::numbers;
using test::wire;

namespace {

using texts = std::vector<std::string>;

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
