// Sending, byte by byte: what waits in the batch, what is flushed when, and what is dropped with a lost
// connection. No checker thread runs, so only the call under test sends.
#include "client/request_channel.h"

#include "client/channel_support.h"
#include "client/pending_calls.h"

using test::bytes;
using test::distinct_bytes;
using test::item_bytes;
using test::message_bytes;
using test::side;
using test::wire;

namespace {

class RequestChannel : public test::unflushed_batch {
  protected:
    static std::uint32_t batch(std::uint16_t type, const bytes& value, std::uint16_t sub_id = 0) {
        return _scc_lib_msg_send_bt(sub_id, type, value.data(), static_cast<int>(value.size()), 0);
    }
    bool nothing_was_sent() { return daemon.stays_silent(side::async, 0); }
    bytes next_message() { return daemon.read(side::async).raw; }
};

TEST_F(RequestChannel, TwoSmallRequestsWaitAndGoOutAsOneMessage) {
    start();
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    EXPECT_EQ(scc_addr_learning(0x11223344, 1, &first), 0U);
    EXPECT_EQ(scc_addr_learning(0x55667788, 0, &second), 0U);
    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 2U);
    EXPECT_TRUE(nothing_was_sent());
    const test::debugging on;
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), bytes(wire()
                                        .u32(48)
                                        .u8(1)
                                        .u16(2)
                                        .u8(0)
                                        .u32(12)
                                        .u16(0)
                                        .u16(123)
                                        .u32(1)
                                        .u32(0x11223344)
                                        .u32(1)
                                        .u32(12)
                                        .u16(0)
                                        .u16(123)
                                        .u32(2)
                                        .u32(0x55667788)
                                        .u32(0)));
    EXPECT_TRUE(test::logged("thread msg(len:48, ver:1, num:2) send len:48, uselen:40. total len:8192."));
}

TEST_F(RequestChannel, AnEmptyBatchIsNotSent) {
    start();
    scc::flush_waiting_batch();
    EXPECT_EQ(batch(900, {1}), 0U);
    scc::flush_waiting_batch();
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, {1})}));
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(RequestChannel, AnItemCarriesItsSubIdAndMayHaveNoValue) {
    start();
    EXPECT_EQ(_scc_lib_ss_msg_send(0xBEEF, 901, nullptr, 0, 0), 0U);
    EXPECT_EQ(_scc_lib_ss_msg_send(0xBEEF, 902, nullptr, -5, 0), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(
        next_message(),
        bytes(wire().u32(24).u8(1).u16(2).u8(0).u32(0).u16(0xBEEF).u16(901).u32(0).u16(0xBEEF).u16(902)));
}

TEST_F(RequestChannel, ABatchOfExactly8192BytesIsFlushedInsideTheCall) {
    start();
    const test::debugging on;
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    EXPECT_TRUE(nothing_was_sent());
    EXPECT_EQ(batch(901, distinct_bytes(4088, 9)), 0U);
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, distinct_bytes(4088)),
                                             item_bytes(901, distinct_bytes(4088, 9))}));
    EXPECT_TRUE(
        test::logged("bt send msg(len:8200, ver:1, num:2) send len:8200, uselen:8192. total len:8192."));
    scc::flush_waiting_batch();
    EXPECT_TRUE(nothing_was_sent());
}

TEST_F(RequestChannel, ABatchOf8191BytesWaits) {
    start();
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    EXPECT_EQ(batch(901, distinct_bytes(4087)), 0U);
    EXPECT_TRUE(nothing_was_sent());
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message().size(), 8199U);
}

TEST_F(RequestChannel, ARequestThatDoesNotFitFlushesWhatWaitsAndThenWaitsItself) {
    start();
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    EXPECT_EQ(batch(901, distinct_bytes(4089, 3)), 0U);
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, distinct_bytes(4088))}));
    EXPECT_TRUE(nothing_was_sent());
    EXPECT_EQ(batch(902, {7}), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(),
              message_bytes({item_bytes(901, distinct_bytes(4089, 3)), item_bytes(902, {7})}));
}

TEST_F(RequestChannel, AValueOf8175BytesIsBatched) {
    start();
    EXPECT_EQ(batch(900, distinct_bytes(8175)), 0U);
    EXPECT_TRUE(nothing_was_sent());
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, distinct_bytes(8175))}));
}

TEST_F(RequestChannel, AValueOf8176BytesReturns22AndOvertakesTheWaitingBatch) {
    start();
    const test::debugging on;
    EXPECT_EQ(batch(900, {1, 2, 3}), 0U);
    EXPECT_EQ(batch(901, distinct_bytes(8176), 5), 22U);
    EXPECT_TRUE(test::logged("msg is larger than sendbuf. val_size:8176."));
    EXPECT_EQ(next_message(), message_bytes({item_bytes(901, distinct_bytes(8176), 5)}));
    EXPECT_TRUE(nothing_was_sent());
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, {1, 2, 3})}));
}

test::event_queue<std::uint32_t>& results() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

void on_efacl(std::uint32_t, std::uint32_t call_id, const void*, std::int32_t data_bytes) {
    results().push(call_id);
    results().push(static_cast<std::uint32_t>(data_bytes));
}

TEST_F(RequestChannel, ARequestWithAValueOf8175BytesIsBatchedAndGetsItsResult) {
    info.handlers.efacl_ctrl = on_efacl;
    start();
    const bytes data = distinct_bytes(8167);
    std::uint32_t call_id = 0;
    EXPECT_EQ(scc_efacl_ctrl(data.data(), 8167, &call_id), 0U);
    EXPECT_TRUE(nothing_was_sent());
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(157, wire().u32(1).u32(8167).add(data))}));
    daemon.send_result(call_id, 0);
    EXPECT_EQ(results().wait(), 1U);
    EXPECT_EQ(results().wait(), 8167U);
}

TEST_F(RequestChannel, ARequestWithAValueOf8176BytesIsSentAndYet22AndItsResultUnknown) {
    info.handlers.efacl_ctrl = on_efacl;
    start();
    const test::debugging on;
    const bytes data = distinct_bytes(8168);
    std::uint32_t small = 0;
    std::uint32_t call_id = 0;
    EXPECT_EQ(scc_addr_learning(5, 1, &small), 0U);
    EXPECT_EQ(scc_efacl_ctrl(data.data(), 8168, &call_id), 22U);
    EXPECT_EQ(call_id, 2U);
    EXPECT_EQ(next_message(), message_bytes({item_bytes(157, wire().u32(2).u32(8168).add(data))}));
    daemon.send_result(2, 0);
    EXPECT_TRUE(test::wait_for_log("no such call id:2 in scc lib"));
    EXPECT_EQ(results().size(), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(1).u32(5).u32(1)));
}

TEST_F(RequestChannel, OutsideTheRegisteredStateEveryRequestIsSentAtOnceWithWhatWaits) {
    start();
    for (const std::uint32_t state : {1U, 2U, 3U, 5U}) {
        EXPECT_EQ(batch(900, {1}), 0U);
        EXPECT_TRUE(nothing_was_sent());
        _scc_client_state_set(state);
        EXPECT_EQ(batch(901, {2}), 0U);
        EXPECT_EQ(next_message(), message_bytes({item_bytes(900, {1}), item_bytes(901, {2})}));
        EXPECT_EQ(batch(902, {3}), 0U);
        EXPECT_EQ(next_message(), message_bytes({item_bytes(902, {3})}));
        _scc_client_state_set(4);
    }
}

TEST_F(RequestChannel, OutsideTheRegisteredStateAnOverflowIsSentUntilTheStateReturns) {
    start();
    EXPECT_EQ(batch(900, distinct_bytes(5000)), 0U);
    _scc_client_state_set(3);
    std::thread sending([] { EXPECT_EQ(batch(901, distinct_bytes(4000)), 0U); });
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, distinct_bytes(5000))}));
    EXPECT_EQ(next_message(), message_bytes({item_bytes(901, distinct_bytes(4000))}));
    EXPECT_EQ(next_message(), message_bytes({item_bytes(901, distinct_bytes(4000))}));
    _scc_client_state_set(4);
    // Keep reading, so that a sender blocked on a full socket gets through.
    std::atomic<bool> ended{false};
    std::thread waiting([&] {
        sending.join();
        ended = true;
    });
    EXPECT_TRUE(test::eventually([&] {
        while (!daemon.stays_silent(side::async, 0)) {
            EXPECT_EQ(next_message(), message_bytes({item_bytes(901, distinct_bytes(4000))}));
        }
        return ended.load();
    }));
    waiting.join();
    while (!nothing_was_sent()) {
        (void)next_message();
    }
    EXPECT_EQ(batch(902, {1}), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(901, distinct_bytes(4000)), item_bytes(902, {1})}));
}

TEST_F(RequestChannel, ABatchMayBeFlushedOnTheSyncSocketWhichIsNotLogged) {
    start();
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    const test::debugging on;
    EXPECT_EQ(_scc_lib_msg_send_bt(3, 901, distinct_bytes(4088, 9).data(), 4088, 1), 0U);
    EXPECT_EQ(daemon.read(side::sync).raw, message_bytes({item_bytes(900, distinct_bytes(4088)),
                                                          item_bytes(901, distinct_bytes(4088, 9), 3)}));
    EXPECT_TRUE(nothing_was_sent());
    EXPECT_TRUE(test::log_texts().empty());
    EXPECT_EQ(_scc_lib_msg_send_bt(4, 902, distinct_bytes(8176).data(), 8176, 1), 22U);
    EXPECT_EQ(daemon.read(side::sync).raw, message_bytes({item_bytes(902, distinct_bytes(8176), 4)}));
}

TEST_F(RequestChannel, ARealTimeMessageGoesOutAloneOnTheSocketOfItsFlag) {
    start();
    EXPECT_EQ(batch(900, {1}), 0U);
    EXPECT_EQ(_scc_lib_msg_send(318, "abc", 3, 1), 0U);
    EXPECT_EQ(daemon.read(side::sync).raw,
              bytes(wire().u32(19).u8(1).u16(1).u8(0).u32(3).u16(0).u16(318).text("abc")));
    EXPECT_EQ(_scc_lib_msg_send_rt(7, 319, nullptr, 0, 0), 0U);
    EXPECT_EQ(next_message(), bytes(wire().u32(16).u8(1).u16(1).u8(0).u32(0).u16(7).u16(319)));
    EXPECT_EQ(_scc_lib_msg_send_rt(7, 320, nullptr, -1, 0), 0U);
    EXPECT_EQ(next_message(), bytes(wire().u32(16).u8(1).u16(1).u8(0).u32(0).u16(7).u16(320)));
}

TEST_F(RequestChannel, AFailedBatchIsDroppedAndTheCallIsZeroAllTheSame) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    ASSERT_EQ(_scc_lib_save_call_data(77, 45, nullptr, 0), 0U);
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    daemon.close_both();
    EXPECT_EQ(scc::pending_calls(), 1U);
    EXPECT_EQ(batch(901, distinct_bytes(4088)), 0U);
    EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ")send async message error(rv:32)!"));
    EXPECT_TRUE(test::logged("!!!!_scc_lib_msg_send_rt rv :32 !!!!."));
    EXPECT_EQ(scc::pending_calls(), 0U);
    release();
    ASSERT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(batch(902, {5}), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(902, {5})}));
}

TEST_F(RequestChannel, AFailedBatchWhileUnregisteringLogsOneLineAndResetsTheState) {
    start_with_holding_handler();
    hold();
    ASSERT_EQ(_scc_lib_save_call_data(77, 45, nullptr, 0), 0U);
    EXPECT_EQ(batch(900, distinct_bytes(4088)), 0U);
    daemon.close_both();
    g_scc_client_cb.app_id = 0;
    {
        const test::debugging on;
        EXPECT_EQ(batch(901, distinct_bytes(4088)), 0U);
        EXPECT_EQ(test::log_texts(),
                  (std::vector<std::string>{
                      "bt send msg(len:8200, ver:1, num:2) send len:8200, uselen:8192. total len:8192.",
                      "(app id:0, pid:" + test::own_pid() + ")send async message error(rv:32)!"}));
    }
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(scc::pending_calls(), 1U);
    g_scc_client_cb.app_id = 7;
    release();
    ASSERT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
}

TEST_F(RequestChannel, AFailedRealTimeSendIsZeroAndDropsThePendingCalls) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    daemon.close_both();
    EXPECT_EQ(scc::pending_calls(), 1U);
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ")send sync message error(rv:32)!"));
    EXPECT_EQ(scc::pending_calls(), 0U);
    release();
    ASSERT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    daemon.send_result(1, 0);
    EXPECT_TRUE(test::wait_for_log("no such call id:1 in scc lib"));
}

TEST_F(RequestChannel, TheBatchOfALostConnectionNeverGoesOutOnTheNext) {
    start();
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    reconnect();
    scc::flush_waiting_batch();
    EXPECT_TRUE(nothing_was_sent());
    EXPECT_EQ(scc_addr_learning(2, 1, nullptr), 0U);
    reconnect();
    EXPECT_EQ(scc_addr_learning(3, 1, nullptr), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(123, wire().u32(3).u32(3).u32(1))}));
}

TEST_F(RequestChannel, ARequestOfALostConnectionTakesNothingOfTheNextOnesBatchWithIt) {
    start();
    const std::uint32_t lost = scc::connection_epoch();
    reconnect();
    EXPECT_EQ(batch(900, {1}), 0U);
    {
        const scc::connection_scope scope(lost);
        EXPECT_EQ(batch(901, {2}), 0U);
    }
    EXPECT_EQ(batch(902, {3}), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(900, {1}), item_bytes(902, {3})}));
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(RequestChannel, CallIdsGoOnOverAReconnectionAndStartAgainAfterUnregistration) {
    start();
    std::uint32_t call_id = 0;
    EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
    EXPECT_EQ(call_id, 1U);
    reconnect();
    EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
    EXPECT_EQ(call_id, 2U);
    stop();
    start();
    EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
    EXPECT_EQ(call_id, 1U);
}

TEST_F(RequestChannel, CallIdsWrapToZeroAndAreStillMatched) {
    static test::event_queue<std::uint32_t>* ids = &results();
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
        ids->push(call_id);
    };
    start();
    g_scc_client_cb.last_call_id = 0xFFFFFFFEU;
    for (const std::uint32_t expected : {0xFFFFFFFFU, 0U, 1U}) {
        std::uint32_t call_id = 77;
        EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
        EXPECT_EQ(call_id, expected);
        daemon.send_result(expected, 0);
        EXPECT_EQ(ids->wait(), expected);
    }
}

TEST_F(RequestChannel, TheRegistrationEndsAndNothingOfItIsSentByTheNext) {
    start();
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    stop();
    start();
    EXPECT_EQ(scc_addr_learning(2, 0, nullptr), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(123, wire().u32(1).u32(2).u32(0))}));
}

TEST_F(RequestChannel, RequestsAreRefusedWith2004UnlessRegistered) {
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
    start();
    for (const std::uint32_t state : {1U, 2U, 3U, 5U}) {
        _scc_client_state_set(state);
        std::uint32_t call_id = 99;
        EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 2004U);
        EXPECT_EQ(call_id, 99U);
    }
    _scc_client_state_set(4);
    std::uint32_t call_id = 0;
    EXPECT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
    EXPECT_EQ(call_id, 1U);
}

// ---- around a registration

TEST_F(RequestChannel, BeforeAStartThereIsNoBatch) {
    const test::debugging on;
    EXPECT_EQ(batch(900, bytes(4)), 12U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"(app id:0, pid:0)alloc memory error!"});
    start();
    EXPECT_EQ(batch(901, bytes(4)), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(next_message(), message_bytes({item_bytes(901, bytes(4))}));
}

// The app id is 0 while an unregistration waits for its reply.
TEST_F(RequestChannel, ASendThatSucceedsDuringAnUnregistrationLeavesTheState) {
    start();
    g_scc_client_cb.app_id = 0;
    const bytes value = wire().u32(1);
    EXPECT_EQ(_scc_lib_msg_send(220, value.data(), 4, 1), 0U);
    EXPECT_EQ(batch(901, bytes(8176)), 22U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    g_scc_client_cb.app_id = 7;
}

TEST_F(RequestChannel, AFlushThatSucceedsLogsNoFailure) {
    start();
    const test::debugging on;
    EXPECT_EQ(batch(901, bytes(4)), 0U);
    scc::flush_waiting_batch();
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
}

}  // namespace
