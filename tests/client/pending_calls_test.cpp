// The calls whose results are awaited: saved, found oldest first, dropped.
#include "client/pending_calls.h"

#include <cstdlib>
#include <cstring>
#include <thread>

#include "client/channel_support.h"
#include "support/large_blocks.h"

using test::bytes;

namespace {

class PendingCalls : public ::testing::Test {
  protected:
    PendingCalls() { scc::init_pending_calls(); }
    ~PendingCalls() override { scc::free_pending_calls(); }

    static std::uint32_t save(std::uint32_t call_id, std::uint32_t kind, const bytes& data) {
        return _scc_lib_save_call_data(call_id, kind, data.data(), static_cast<int>(data.size()));
    }

    // Takes a call out and returns its kind; 0 for none.
    static std::uint32_t kind_of(std::uint32_t call_id) {
        scc::pending_call* call = scc::take_pending_call(call_id);
        const std::uint32_t kind = call == nullptr ? 0 : call->kind;
        if (call != nullptr) {
            scc::release_pending_call(call);
        }
        return kind;
    }
};

TEST_F(PendingCalls, ACallKeepsACopyOfItsData) {
    bytes data = test::distinct_bytes(736);
    const bytes before = data;
    ASSERT_EQ(save(7, 4, data), 0U);
    data.assign(data.size(), 0);
    scc::pending_call* call = scc::take_pending_call(7);
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(call->call_id, 7U);
    EXPECT_EQ(call->kind, 4U);
    EXPECT_EQ(call->data_bytes, 736);
    EXPECT_EQ(bytes(call->data(), call->data() + 736), before);
    EXPECT_EQ(call->data(), reinterpret_cast<const std::uint8_t*>(call) + 32);
    EXPECT_EQ(scc::take_pending_call(7), nullptr);
    scc::release_pending_call(call);
}

TEST_F(PendingCalls, DataMayBeEmpty) {
    for (const int length : {0, -1}) {
        ASSERT_EQ(_scc_lib_save_call_data(1, 9, nullptr, length), 0U);
        scc::pending_call* call = scc::take_pending_call(1);
        ASSERT_NE(call, nullptr);
        EXPECT_EQ(call->data_bytes, length);
        scc::release_pending_call(call);
    }
}

TEST_F(PendingCalls, OfSeveralUnderOneIdTheOldestIsFoundFirst) {
    ASSERT_EQ(save(5, 1, {1}), 0U);
    ASSERT_EQ(save(6, 2, {1}), 0U);
    ASSERT_EQ(save(5, 3, {1}), 0U);
    ASSERT_EQ(save(5, 4, {1}), 0U);
    _scc_lib_del_call_data(5);
    EXPECT_EQ(kind_of(5), 3U);
    EXPECT_EQ(kind_of(5), 4U);
    EXPECT_EQ(kind_of(5), 0U);
    EXPECT_EQ(kind_of(6), 2U);
}

TEST_F(PendingCalls, DeletingAnUnknownIdChangesNothing) {
    ASSERT_EQ(save(1, 1, {1}), 0U);
    for (const std::uint32_t unknown : {0U, 2U, 1025U, 0xFFFFFFFFU}) {
        _scc_lib_del_call_data(unknown);
    }
    EXPECT_EQ(scc::pending_calls(), 1U);
    EXPECT_EQ(kind_of(1), 1U);
}

TEST_F(PendingCalls, IdsThatShareAPlaceAreToldApart) {
    for (const std::uint32_t id : {3U, 1027U, 2051U, 0xFFFFFC03U}) {
        ASSERT_EQ(save(id, id % 50 + 1, {1}), 0U);
    }
    for (const std::uint32_t id : {2051U, 3U, 0xFFFFFC03U, 1027U}) {
        EXPECT_EQ(kind_of(id), id % 50 + 1);
    }
}

TEST_F(PendingCalls, DroppingThemAllLeavesNone) {
    for (std::uint32_t id = 0; id < 3000; ++id) {
        ASSERT_EQ(save(id, 1, {1, 2, 3}), 0U);
    }
    EXPECT_EQ(scc::pending_calls(), 3000U);
    scc::free_pending_calls();
    EXPECT_EQ(scc::pending_calls(), 0U);
    EXPECT_EQ(kind_of(5), 0U);
    ASSERT_EQ(save(5, 2, {1}), 0U);
    EXPECT_EQ(kind_of(5), 2U);
}

TEST_F(PendingCalls, PreparingForARegistrationLeavesNoneOfBefore) {
    ASSERT_EQ(save(1, 9, {}), 0U);
    EXPECT_EQ(scc::pending_calls(), 1U) << "in the index";
    ASSERT_EQ(save(2, 9, {}), 0U);
    scc::init_pending_calls();
    EXPECT_EQ(scc::pending_calls(), 0U);
    EXPECT_EQ(kind_of(1), 0U);
    EXPECT_EQ(kind_of(2), 0U);
}

TEST_F(PendingCalls, GrowingTheIndexKeepsEveryCallAndTheirOrder) {
    constexpr std::uint32_t count = 20000;
    for (std::uint32_t id = 0; id < count; ++id) {
        ASSERT_EQ(save(id, 1, {1}), 0U);
        ASSERT_EQ(save(id, 2, {1}), 0U);
        if (id % 1500 == 0) {
            scc::grow_pending_index();
        }
    }
    scc::grow_pending_index();
    EXPECT_EQ(scc::pending_calls(), 2 * count);
    for (std::uint32_t id = 0; id < count; ++id) {
        ASSERT_EQ(kind_of(id), 1U) << id;
        ASSERT_EQ(kind_of(id), 2U) << id;
    }
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(PendingCalls, BlocksThatAreUsedAgainHoldTheNewData) {
    for (std::uint32_t round = 1; round < 50; ++round) {
        const bytes data = test::distinct_bytes(round % 3 == 0 ? 9 : 5, static_cast<std::uint8_t>(round));
        ASSERT_EQ(save(round, round, data), 0U);
        scc::pending_call* call = scc::take_pending_call(round);
        ASSERT_NE(call, nullptr);
        EXPECT_EQ(bytes(call->data(), call->data() + call->data_bytes), data);
        scc::release_pending_call(call);
        if (round % 10 == 0) {
            scc::free_idle_blocks();
        }
    }
}

class IdleBlocks : public PendingCalls {
  protected:
    // A large block comes back from a delivered call.
    static void use_block() {
        std::vector<std::uint8_t> data(test::large_blocks::size);
        ASSERT_EQ(_scc_lib_save_call_data(1, 1, data.data(), static_cast<int>(data.size())), 0U);
        ASSERT_EQ(kind_of(1), 1U);
    }

    // Where large blocks cannot be counted there are none.
    const long one = [] {
        const test::large_blocks before;
        const std::vector<std::uint8_t> block(test::large_blocks::size);
        return before.more();
    }();
    const test::large_blocks blocks;
};

TEST_F(IdleBlocks, AreFreedWhenNoneWasUsedSinceTheLastPass) {
    use_block();
    EXPECT_EQ(blocks.more(), one);
    scc::free_idle_blocks();
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(IdleBlocks, AreKeptAsLongAsSomeAreUsed) {
    use_block();
    for (int pass = 0; pass < 3; ++pass) {
        use_block();
        scc::free_idle_blocks();
        EXPECT_EQ(blocks.more(), one);
    }
    scc::free_idle_blocks();
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(IdleBlocks, AreLeftToALaterPassWhileARequestHoldsItsLock) {
    use_block();
    ASSERT_EQ(pthread_rwlock_wrlock(&scc_lib_lock), 0);
    scc::free_idle_blocks();
    EXPECT_EQ(blocks.more(), one);
    pthread_rwlock_unlock(&scc_lib_lock);
    scc::free_idle_blocks();
    EXPECT_EQ(blocks.more(), 0);
    EXPECT_EQ(pthread_rwlock_trywrlock(&scc_lib_lock), 0) << "the lock was released";
    pthread_rwlock_unlock(&scc_lib_lock);
}

TEST_F(IdleBlocks, OfAnotherSizeAreFreedByTheNextRequest) {
    use_block();
    ASSERT_EQ(save(2, 1, {1}), 0U);
    EXPECT_EQ(blocks.more(), 0);
}

TEST_F(IdleBlocks, DeletedCallsLeaveNone) {
    const std::vector<std::uint8_t> data(test::large_blocks::size);
    const test::large_blocks now;
    ASSERT_EQ(_scc_lib_save_call_data(1, 1, data.data(), static_cast<int>(data.size())), 0U);
    _scc_lib_del_call_data(1);
    EXPECT_EQ(now.more(), 0);
}

// More calls than the ring between the threads holds, looked up in between, in both orders.
TEST_F(PendingCalls, CallsAreFoundHoweverManyWereSavedSinceTheLastLookUp) {
    for (const std::uint32_t count : {1U, 1023U, 1024U, 1025U, 5000U}) {
        for (std::uint32_t id = 1; id <= count; ++id) {
            ASSERT_EQ(save(id, id % 60 + 1, {1, 2}), 0U);
        }
        EXPECT_EQ(scc::pending_calls(), count);
        for (std::uint32_t id = count; id >= 1; --id) {
            ASSERT_EQ(kind_of(id), id % 60 + 1) << count;
        }
    }
}

// The ring holds 1,024.
TEST_F(PendingCalls, ACallThatFindsTheRingFullIsYoungerThanThoseInIt) {
    ASSERT_EQ(save(7, 1, {}), 0U);
    for (std::uint32_t id = 101; id < 101 + 1023; ++id) {
        ASSERT_EQ(save(id, 9, {}), 0U);
    }
    ASSERT_EQ(save(7, 2, {}), 0U);
    EXPECT_EQ(kind_of(7), 1U);
    EXPECT_EQ(kind_of(7), 2U);
}

TEST_F(PendingCalls, BlocksOfOneSizeMakeRoomForThoseOfAnother) {
    for (const std::size_t size : {736U, 5U, 736U, 928U}) {
        for (std::uint32_t id = 0; id < 9000; ++id) {
            ASSERT_EQ(save(id, 1, bytes(size, 0x5A)), 0U);
        }
        for (std::uint32_t id = 0; id < 9000; ++id) {
            ASSERT_EQ(kind_of(id), 1U);
        }
    }
}

TEST_F(PendingCalls, AThreadThatSavesAndOneThatTakesMissNothing) {
    constexpr std::uint32_t count = 100000;
    std::thread saving([] {
        for (std::uint32_t id = 1; id <= count; ++id) {
            EXPECT_EQ(_scc_lib_save_call_data(id, id % 60 + 1, &id, sizeof id), 0U);
        }
    });
    for (std::uint32_t id = 1; id <= count; ++id) {
        scc::pending_call* call = nullptr;
        while ((call = scc::take_pending_call(id)) == nullptr) {
            std::this_thread::yield();
        }
        std::uint32_t saved = 0;
        std::memcpy(&saved, call->data(), sizeof saved);
        ASSERT_EQ(saved, id);
        ASSERT_EQ(call->kind, id % 60 + 1);
        scc::release_pending_call(call);
    }
    saving.join();
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(PendingCalls, ACallInHandThatNobodyTookIsPendingAgain) {
    ASSERT_EQ(save(1, 4, {1}), 0U);
    ASSERT_EQ(save(2, 5, {2}), 0U);
    {
        const std::uint32_t ids[] = {1, 2};
        scc::calls_in_hand calls(ids);
        scc::release_pending_call(calls.take(0));
        EXPECT_EQ(scc::pending_calls(), 1U);
    }
    EXPECT_EQ(scc::pending_calls(), 1U);
    EXPECT_EQ(kind_of(2), 5U);
}

// A handler of a run that itself runs an event loop receives results meanwhile.
TEST_F(PendingCalls, OneRunHoldsItsCallsInHandAndAnotherTakesItsOwnFromTheRest) {
    for (const std::uint32_t id : {1U, 2U, 3U, 4U}) {
        ASSERT_EQ(save(id, id + 10, {}), 0U);
    }
    const std::vector<std::uint32_t> held_ids = {1, 2};
    const std::vector<std::uint32_t> other_ids = {2, 3};
    scc::calls_in_hand held(held_ids);
    EXPECT_EQ(scc::pending_calls(), 4U);
    EXPECT_NE(held.peek(1), nullptr);
    EXPECT_EQ(held.peek(2), nullptr);
    {
        scc::calls_in_hand other(other_ids);
        EXPECT_EQ(other.peek(0), nullptr);
        for (std::size_t i = 0; i < 2; ++i) {
            scc::pending_call* call = other.take(i);
            ASSERT_NE(call, nullptr);
            EXPECT_EQ(call->call_id, other_ids[i]);
            scc::release_pending_call(call);
        }
    }
    EXPECT_NE(held.peek(0), nullptr);
    EXPECT_EQ(held.take(1), nullptr);
    scc::pending_call* call = held.take(0);
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(call->call_id, 1U);
    scc::release_pending_call(call);
    EXPECT_EQ(scc::pending_calls(), 1U);
}

TEST_F(PendingCalls, ARunHoldsItsCallsAfterAnEarlierOneHasEnded) {
    ASSERT_EQ(save(1, 4, {}), 0U);
    const std::vector<std::uint32_t> ids = {1};
    { const scc::calls_in_hand earlier(ids); }
    const scc::calls_in_hand held(ids);
    EXPECT_NE(held.peek(0), nullptr);
    EXPECT_EQ(kind_of(1), 4U) << "found by its id";
    EXPECT_EQ(held.peek(0), nullptr);
}

TEST_F(PendingCalls, ARunHoldsNoCallsButItsOwn) {
    for (const std::uint32_t id : {1U, 2U, 3U}) {
        ASSERT_EQ(save(id, id + 10, {}), 0U);
    }
    const std::vector<std::uint32_t> ids = {1, 2, 3};
    { const scc::calls_in_hand held({ids.data(), 2}); }
    for (const std::uint32_t id : ids) {
        EXPECT_EQ(kind_of(id), id + 10);
    }
}

TEST_F(PendingCalls, ARunWithoutResultsHoldsNothing) {
    const scc::calls_in_hand none({});
    EXPECT_EQ(none.peek(0), nullptr);
    ASSERT_EQ(save(1, 4, {}), 0U);
    const std::vector<std::uint32_t> ids = {1};
    const scc::calls_in_hand held(ids);
    EXPECT_NE(held.peek(0), nullptr);
}

TEST(PendingCallsBeforeAStart, AreNone) {
    EXPECT_EQ(scc::take_pending_call(1), nullptr);
    const std::vector<std::uint32_t> ids = {1};
    scc::calls_in_hand none(ids);
    EXPECT_EQ(none.take(0), nullptr);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(PendingCalls, CallIdsCountUpAndWrap) {
    EXPECT_EQ(_scc_lib_call_id_get(), 1U);
    EXPECT_EQ(_scc_lib_call_id_get(), 2U);
    g_scc_client_cb.last_call_id = 0xFFFFFFFFU;
    EXPECT_EQ(_scc_lib_call_id_get(), 0U);
    EXPECT_EQ(_scc_lib_call_id_get(), 1U);
}

}  // namespace
