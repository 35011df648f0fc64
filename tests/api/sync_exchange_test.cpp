// The synchronous socket: one query at a time owns it, and an error affects only that query.
#include <atomic>

#include "api/query_rows.h"
#include "client/message_reader.h"
#include "support/aside.h"

using test::bytes;
using test::item_bytes;
using test::message_bytes;
using test::query_row;
using test::side;
using test::wire;

namespace {

class SyncExchange : public test::querying_client {
  protected:
    // Counts the users of one key.
    static query_row count_users(std::uint32_t key) {
        query_row row;
        row.name = "count";
        row.memory = wire().u32(0xA5A5A5A5);
        row.call = [key](bytes& memory) {
            std::uint32_t count = 0xA5A5A5A5;
            const std::uint32_t code = scc_arp_check_user_count_get(key, &count);
            memory = wire().u32(count);
            return code;
        };
        row.request = 304;
        row.reply = 411;
        row.good = count_of(key * 3);
        row.answer = wire().u32(key * 3);
        row.memory_after_error = row.memory;
        return row;
    }

    static bytes count_of(std::uint32_t count) { return wire().u32(0).u32(0).u32(count); }
    // The daemon's answer to count_users(key), and the caller's value after it.
    static bytes reply_to(std::uint32_t key) { return message_bytes({item_bytes(411, count_of(key * 3))}); }
    static outcome answered(std::uint32_t key) { return {0, wire().u32(key * 3)}; }
};

TEST_F(SyncExchange, ReadsTheFirstItemOfItsReplyAndNoOther) {
    start(0);
    const query_row row = count_users(1);
    const outcome first =
        exchange(row, message_bytes({item_bytes(411, count_of(10)), item_bytes(411, count_of(20)),
                                     item_bytes(1, bytes(500, 7))}));
    EXPECT_EQ(first.code, 0U);
    EXPECT_EQ(first.memory, bytes(wire().u32(10)));
    const outcome second =
        exchange(row, message_bytes({item_bytes(410, count_of(10)), item_bytes(411, count_of(20))}));
    EXPECT_EQ(second.code, 2007U);
    // The missing fields of a short first item are not read from the second.
    const outcome third = exchange(row, message_bytes({item_bytes(411, {}), item_bytes(411, count_of(20))}));
    EXPECT_EQ(third.code, 2007U);
    EXPECT_EQ(third.memory, bytes(wire().u32(0xA5A5A5A5)));
    expect_a_good_query(row);
}

TEST_F(SyncExchange, DoesNotLookAtTheSecondKeyOfAReply) {
    start(0);
    const outcome out = exchange(count_users(1), message_bytes({item_bytes(411, count_of(5), 0xFFFF)}));
    EXPECT_EQ(out.code, 0U);
    EXPECT_EQ(out.memory, bytes(wire().u32(5)));
}

TEST_F(SyncExchange, WaitsForAReplyThatComesInPieces) {
    start(0);
    const query_row row = count_users(4);
    auto running = begin(row);
    EXPECT_EQ(daemon.read_item(side::sync).type, 304);
    for (const std::uint8_t byte : message_bytes({item_bytes(411, row.good)})) {
        daemon.send(side::sync, bytes{byte});
    }
    const outcome out = running.get();
    EXPECT_EQ(out.code, 0U);
    EXPECT_EQ(out.memory, row.answer);
}

TEST_F(SyncExchange, ReadsAReplyOfManyThousandBytes) {
    start(0);
    const query_row row = count_users(4);
    const outcome out = exchange_item(row, 411, wire().add(row.good).fill(300000, 0xEE));
    EXPECT_EQ(out.code, 0U);
    EXPECT_EQ(out.memory, row.answer);
}

TEST_F(SyncExchange, RefusesAnItemCountThatLeadsPastTheMessage) {
    const test::debugging on;
    start(0);
    const query_row row = count_users(1);
    bytes two_announced = message_bytes({item_bytes(411, row.good)});
    two_announced[5] = 2;
    const outcome out = exchange(row, two_announced);
    EXPECT_EQ(out.code, 2007U);
    EXPECT_EQ(out.memory, row.memory);
    expect_a_good_query(row);
}

// Closes the connection after that many bytes of the reply.
TEST_F(SyncExchange, ReturnsAnErrorWhereverItsReplyBreaksOff) {
    start(0);
    const query_row row = count_users(2);
    const bytes reply = message_bytes({item_bytes(411, row.good)});
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{8}, std::size_t{15}, std::size_t{27}}) {
        ASSERT_LT(length, reply.size());
        auto running = begin(row);
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(side::sync, test::slice(reply, 0, length));
        daemon.close_both();
        const outcome out = running.get();
        EXPECT_NE(out.code, 0U) << length;
        EXPECT_EQ(out.memory, row.memory) << length;
        EXPECT_EQ(test::statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
        expect_a_good_query(row);
    }
}

TEST_F(SyncExchange, ReportsTheEndOfItsSocketEvenWhenTheOtherStaysOpen) {
    start(0);
    const query_row row = count_users(2);
    auto running = begin(row);
    EXPECT_EQ(daemon.read_item(side::sync).type, 304);
    daemon.close_side(side::sync);
    EXPECT_EQ(running.get().code, 32U);
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_a_good_query(row);
}

TEST_F(SyncExchange, ReleasesAQueryWhenTheOtherSocketIsLost) {
    start(0);
    const query_row row = count_users(2);
    auto running = begin(row);
    EXPECT_EQ(daemon.read_item(side::sync).type, 304);
    daemon.close_side(side::async);
    EXPECT_NE(running.get().code, 0U);
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_a_good_query(row);
}

TEST_F(SyncExchange, GivesEachOfTwoThreadsItsOwnReply) {
    start(0);
    test::aside<outcome> first([] { return outcome_of(count_users(10)); });
    EXPECT_EQ(test::u32_at(daemon.read_item(side::sync).value, 4), 10U);
    ASSERT_TRUE(first.waits_in(test::waiting_for_bytes));
    test::aside<outcome> second([] { return outcome_of(count_users(20)); });
    // The second query waits until the first has its reply.
    ASSERT_TRUE(second.waits_in(test::waiting_for_a_lock));
    EXPECT_TRUE(daemon.stays_silent(side::sync, 0));
    daemon.send_item(side::sync, 411, count_of(30));
    EXPECT_EQ(first.get().memory, bytes(wire().u32(30)));
    EXPECT_EQ(test::u32_at(daemon.read_item(side::sync).value, 4), 20U);
    daemon.send_item(side::sync, 411, count_of(60));
    EXPECT_EQ(second.get().memory, bytes(wire().u32(60)));
}

TEST_F(SyncExchange, GivesManyThreadsTheirOwnReplies) {
    constexpr std::uint32_t threads = 4;
    constexpr std::uint32_t queries = 100;
    start(0);
    std::atomic<std::uint32_t> wrong = 0;
    std::vector<std::thread> asking;
    for (std::uint32_t thread = 0; thread < threads; ++thread) {
        asking.emplace_back([thread, &wrong] {
            for (std::uint32_t i = 0; i < queries; ++i) {
                const std::uint32_t key = thread * 1000 + i;
                std::uint32_t count = 0;
                if (scc_arp_check_user_count_get(key, &count) != 0 || count != key + 7) {
                    ++wrong;
                }
            }
        });
    }
    for (std::uint32_t i = 0; i < threads * queries; ++i) {
        const test::received_item request = daemon.read_item(side::sync);
        daemon.send_item(side::sync, 411, count_of(test::u32_at(request.value, 4) + 7));
    }
    for (std::thread& thread : asking) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0U);
}

// ---- a host's signal handler ends the wait for the reply -------------------------------------------

TEST_F(SyncExchange, InterruptedAtAnyByteOfItsReplyLeavesTheNextItsOwnAnswer) {
    start(0);
    const query_row row = count_users(7);
    const std::size_t reply_bytes = message_bytes({item_bytes(411, test::other_answer(row))}).size();
    for (std::size_t length = 0; length < reply_bytes; ++length) {
        SCOPED_TRACE(length);
        expect_own_answers_after_interruption(row, length);
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(SyncExchange, InterruptedMayFindItsReplyBeforeTheNextIsAsked) {
    start(0);
    for (const std::size_t length : {std::size_t{0}, std::size_t{5}, std::size_t{8}, std::size_t{27}}) {
        SCOPED_TRACE(length);
        const bytes late = reply_to(10);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(count_users(10), test::slice(late, 0, length)));
        daemon.send(side::sync, test::slice(late, length, late.size() - length));
        EXPECT_EQ(outcome_after(count_users(20), reply_to(20)), answered(20));
        EXPECT_EQ(outcome_after(count_users(30), reply_to(30)), answered(30));
        if (HasFailure()) {
            return;
        }
    }
}

TEST_F(SyncExchange, InterruptedThreeTimesInARowLeavesTheFourthItsOwnAnswer) {
    start(0);
    for (const std::uint32_t key : {10U, 20U, 30U}) {
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(count_users(key), {}));
    }
    EXPECT_EQ(outcome_after(count_users(40),
                            wire().add(reply_to(10)).add(reply_to(20)).add(reply_to(30)).add(reply_to(40))),
              answered(40));
    if (!HasFailure()) {
        EXPECT_EQ(outcome_after(count_users(50), reply_to(50)), answered(50));
    }
}

// The second is interrupted in the middle of the reply that the first left owed, or of its own reply.
TEST_F(SyncExchange, InterruptedWhileItReadsPastAnotherLeavesTheThirdItsOwnAnswer) {
    start(0);
    const bytes late = wire().add(reply_to(10)).add(reply_to(20));
    for (const std::size_t first : {std::size_t{0}, std::size_t{5}, std::size_t{12}, std::size_t{27}}) {
        for (const std::size_t second :
             {first, first + 1, std::size_t{28}, std::size_t{33}, std::size_t{36}, std::size_t{55}}) {
            SCOPED_TRACE(::testing::Message() << first << " and " << second);
            ASSERT_NO_FATAL_FAILURE(expect_interrupted(count_users(10), test::slice(late, 0, first)));
            ASSERT_NO_FATAL_FAILURE(
                expect_interrupted(count_users(20), test::slice(late, first, second - first)));
            EXPECT_EQ(outcome_after(count_users(30),
                                    wire().add(test::slice(late, second, 56 - second)).add(reply_to(30))),
                      answered(30));
            if (HasFailure()) {
                return;
            }
        }
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(SyncExchange, InterruptedOwesNothingToTheNextConnection) {
    start(0);
    for (const std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{12}}) {
        SCOPED_TRACE(length);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(count_users(10), test::slice(reply_to(10), 0, length)));
        daemon.close_both();
        EXPECT_EQ(test::statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
        EXPECT_EQ(outcome_after(count_users(20), reply_to(20)), answered(20));
        if (HasFailure()) {
            return;
        }
    }
}

TEST_F(SyncExchange, InterruptedMayBeAnsweredLateByAnything) {
    bytes past_its_end = item_bytes(411, count_of(5));
    past_its_end[0] = 200;
    const bytes late_replies[] = {
        message_bytes({item_bytes(405, wire().u32(1))}),
        message_bytes({item_bytes(302, wire().u32(0).u32(1))}),
        message_bytes({item_bytes(411, {})}),
        message_bytes({item_bytes(411, count_of(5)), item_bytes(411, count_of(6))}),
        message_bytes({item_bytes(411, bytes(300000, 0xEE))}),
        message_bytes({past_its_end}),
        wire().u32(8).u8(1).u16(0).u8(0),
        wire().u32(8).u8(1).u16(1).u8(0),
    };
    start(0);
    for (const bytes& late : late_replies) {
        SCOPED_TRACE(late.size());
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(count_users(10), {}));
        EXPECT_EQ(outcome_after(count_users(20), wire().add(late).add(reply_to(20))), answered(20));
        if (HasFailure()) {
            return;
        }
        EXPECT_EQ(outcome_after(count_users(30), reply_to(30)), answered(30));
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(SyncExchange, MayBeMadeFromAHandler) {
    static auto* answers = new test::event_queue<std::uint32_t>;
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t key, std::uint8_t) {
        std::uint32_t count = 0;
        EXPECT_EQ(scc_arp_check_user_count_get(key, &count), 0U);
        answers->push(count);
    };
    start(0);
    std::uint32_t id = 0;
    ASSERT_EQ(scc_addr_learning(33, 1, &id), 0U);
    daemon.read_item(side::async);
    daemon.send_result(id, 0);
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(0).u32(33).u32(0)));
    daemon.send_item(side::sync, 411, count_of(99));
    EXPECT_EQ(answers->wait(), 99U);
}

// The app id is 0 while an unregistration waits for its reply.
TEST_F(SyncExchange, OfAQueryThatSucceedsDuringAnUnregistrationLeavesTheState) {
    start();
    g_scc_client_cb.app_id = 0;
    daemon.send(side::sync, reply_to(1));
    std::uint32_t count = 0;
    EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    g_scc_client_cb.app_id = 7;
}

TEST_F(SyncExchange, AReplyThatCountsNoItemHasNoneWhateverFollowsItsHeader) {
    start();
    std::uint32_t count = 7;
    const bytes item = item_bytes(411, count_of(9));
    daemon.send(side::sync,
                wire().u32(static_cast<std::uint32_t>(8 + item.size())).u8(1).u16(0).u8(0).add(item));
    EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 2007U);
    EXPECT_EQ(count, 7U);
}

TEST_F(SyncExchange, LocksTheSocketForItself) {
    start();
    pthread_mutex_t& lock = scc::state_of(scc::channel::sync).lock.handle;
    ASSERT_EQ(pthread_mutex_lock(&lock), 0);
    test::aside<std::uint32_t> asking([] {
        std::uint32_t count = 0;
        return scc_arp_check_user_count_get(1, &count);
    });
    EXPECT_TRUE(asking.waits_in(test::waiting_for_a_lock));
    EXPECT_TRUE(daemon.stays_silent(side::sync, 0));
    pthread_mutex_unlock(&lock);
    EXPECT_EQ(daemon.read_item(side::sync).type, 304);
    daemon.send(side::sync, reply_to(1));
    EXPECT_EQ(asking.get(), 0U);
}

}  // namespace
