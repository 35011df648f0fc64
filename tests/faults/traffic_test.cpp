// Each system call of a registered application fails in turn, with each error: errors that end the connection
// lead to a new one, the others leave it alone.
#include <sys/socket.h>

#include <atomic>

#include "client/locks.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "fault_support.h"

using test::bytes;
using test::call;
using test::side;
using test::wire;

namespace {

class TrafficFaults : public test::fault_test {
  protected:
    static std::string message_error(const char* socket, int error) {
        return "(app id:7, pid:" + test::own_pid() + ")send " + socket +
               " message error(rv:" + std::to_string(error) + ")!";
    }
};

class BatchFaults : public TrafficFaults {
  protected:
    BatchFaults() { g_send_buf_chk_enabled = 1; }

    void expect_recovered_and_working(bool lost) {
        if (lost) {
            expect_reconnection();
        }
        EXPECT_EQ(test::statuses().size(), 0U);
        const std::uint8_t value = 5;
        ASSERT_EQ(_scc_lib_msg_send_bt(0, 903, &value, 1, 0), 0U);
        scc::flush_waiting_batch();
        ASSERT_EQ(daemon.read(side::async).raw, test::message_bytes({test::item_bytes(903, {5})}));
    }
};

TEST_F(TrafficFaults, ARealTimeSendIsZeroWhateverItsError) {
    start();
    test::for_each_error([&](int error, bool lost) {
        const test::debugging on;
        test::fail_call(call::send, 1, error);
        EXPECT_EQ(scc_warterline_notify(1), 0U);
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged(message_error("sync", error)));
        expect_recovered(lost);
    });
}

// Like a request that found its connection alive and lost the race.
TEST_F(TrafficFaults, ACallThatIsSavedWhileItsConnectionIsClosedGoesWithIt) {
    start();
    test::on_call(call::close, [] { EXPECT_EQ(_scc_lib_save_call_data(9, 45, nullptr, 0), 0U); });
    for (const side where : {side::sync, side::async}) {
        ASSERT_EQ(shutdown(daemon.fd(where), SHUT_RDWR), 0);
    }
    expect_reconnection();
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_working();
}

TEST_F(TrafficFaults, ASendThatBreaksOffHalfWayBringsANewConnection) {
    start();
    for (const int nth : {2, 5, 10}) {
        test::limit_transfer(2);
        test::fail_call(call::send, nth, 104);
        EXPECT_EQ(scc_warterline_notify(1), 0U);
        EXPECT_TRUE(test::end_faults());
        expect_recovered(true);
    }
}

TEST_F(TrafficFaults, ASendThatMovesNothingIsMadeAgain) {
    start();
    test::limit_transfer(5);
    test::fail_call(call::send, 2, 0);
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(test::calls(call::send), 5);  // 5, none, 5, 5, 5 bytes
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(daemon.read(side::sync).raw,
              bytes(wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(220).u32(1)));
    expect_recovered(false);
}

TEST_F(BatchFaults, AFullBatchIsZeroAndDroppedWhateverItsError) {
    start();
    const bytes half(4088, 1);
    test::for_each_error([&](int error, bool lost) {
        const test::debugging on;
        ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, half.data(), 4088, 0), 0U);
        test::fail_call(call::send, 1, error);
        EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, half.data(), 4088, 0), 0U);
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged(message_error("async", error)));
        EXPECT_TRUE(test::logged("!!!!_scc_lib_msg_send_rt rv :" + std::to_string(error) + " !!!!."));
        expect_recovered_and_working(lost);
    });
}

TEST_F(BatchFaults, ARequestAfterAFailedFlushIsDroppedWithIt) {
    start();
    const bytes large(5000, 1);
    ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, large.data(), 5000, 0), 0U);
    test::fail_call(call::send, 1, 11);
    EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, large.data(), 5000, 0), 0U);
    EXPECT_TRUE(test::end_faults());
    expect_recovered_and_working(false);
}

TEST_F(BatchFaults, AnOversizedValueIs22WhateverItsError) {
    start();
    const bytes large(8176, 1);
    test::for_each_error([&](int error, bool lost) {
        test::fail_call(call::send, 1, error);
        EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, large.data(), 8176, 0), 22U);
        EXPECT_TRUE(test::end_faults());
        expect_recovered_and_working(lost);
    });
}

// For the checker, every error except the time-out ends the connection.
TEST_F(BatchFaults, AFlushOfTheCheckerThatFailsEndsTheConnection) {
    start();
    test::for_each_error([&](int error, bool) {
        if (error == 11) {
            return;
        }
        const test::debugging on;
        ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
        test::fail_call(call::send, 1, error);
        scc::flush_waiting_batch();
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() +
                                 ")send  message error,ret:" + std::to_string(error) + "!"));
        expect_recovered_and_working(true);
        EXPECT_EQ(scc::pending_calls(), 0U);
    });
}

TEST_F(BatchFaults, ATimedOutFlushIsSentAgainWhole) {
    start();
    const test::debugging on;
    ASSERT_EQ(scc_svi_router_acl_set(3, nullptr), 0U);
    test::fail_call(call::send, 1, 11);
    scc::flush_waiting_batch();
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(
        test::logged("_scc_msg_send retry to send 1 times. Reason:Resource temporarily unavailable(11)."));
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(1).u32(3)));
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(BatchFaults, AFlushIsGivenUpAfterTwentyRetriesAndTheConnectionStays) {
    start();
    const test::debugging on;
    ASSERT_EQ(scc_svi_router_acl_set(3, nullptr), 0U);
    test::fail_calls_from(call::send, 1, 11);
    const auto before = std::chrono::steady_clock::now();
    scc::flush_waiting_batch();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20 * 200));
    EXPECT_EQ(test::calls(call::send), 21);
    EXPECT_TRUE(test::end_faults());
    std::vector<std::string> lines = {
        "thread msg(len:24, ver:1, num:1) send len:24, uselen:16. total len:8192."};
    for (int retry = 1; retry <= 20; ++retry) {
        lines.push_back("_scc_msg_send retry to send " + std::to_string(retry) +
                        " times. Reason:Resource temporarily unavailable(11).");
    }
    lines.push_back("_scc_msg_send retry 21 times. Reason:Resource temporarily unavailable(11).");
    EXPECT_EQ(test::log_texts(), lines);
    // The batch is dropped, its call stays, and the next batch counts from the beginning.
    EXPECT_EQ(scc::pending_calls(), 1U);
    test::clear_log();
    ASSERT_EQ(scc_svi_router_acl_set(4, nullptr), 0U);
    test::fail_call(call::send, 1, 11);
    scc::flush_waiting_batch();
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(
        test::logged("_scc_msg_send retry to send 1 times. Reason:Resource temporarily unavailable(11)."));
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(2).u32(4)));
    expect_recovered_and_working(false);
}

// Requests wait for the lock meanwhile: nothing may be sent between the pieces of a message.
TEST_F(BatchFaults, AFlushThatIsSentAgainKeepsTheSendersLock) {
    start();
    const test::debugging on;
    ASSERT_EQ(scc_svi_router_acl_set(3, nullptr), 0U);
    test::fail_calls_from(call::send, 1, 11);
    std::thread flushing(scc::flush_waiting_batch);
    EXPECT_TRUE(test::wait_for_log(
        "_scc_msg_send retry to send 2 times. Reason:Resource temporarily unavailable(11)."));
    EXPECT_EQ(pthread_rwlock_trywrlock(&scc_send_buf_lock), EBUSY);
    ASSERT_EQ(pthread_rwlock_trywrlock(&scc_lib_lock), 0);
    pthread_rwlock_unlock(&scc_lib_lock);
    EXPECT_TRUE(test::end_faults());
    flushing.join();
    ASSERT_EQ(pthread_rwlock_trywrlock(&scc_send_buf_lock), 0);
    pthread_rwlock_unlock(&scc_send_buf_lock);
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(1).u32(3)));
}

TEST_F(TrafficFaults, ACheckerWhoseWaitFailsWaitsAgain) {
    start();
    const test::debugging on;
    for (const int error : {4, 9, 22}) {
        test::fail_call(call::select, 1, error);
        EXPECT_TRUE(test::wait_for_log("select error! errno:" + std::to_string(error) + "."));
        EXPECT_TRUE(test::end_faults());
        expect_recovered(false);
    }
}

TEST_F(TrafficFaults, AHeaderThatCannotBeReadBringsANewConnectionOrIsReadNextTime) {
    start();
    test::for_each_error([&](int error, bool lost) {
        const test::debugging on;
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_svi_router_acl_set(1, &call_id), 0U);
        (void)daemon.read_item(side::async);
        test::fail_call(call::recv, 1, error);
        daemon.send_result(call_id, 7);
        EXPECT_TRUE(test::wait_for_log("recv msg hdr error! syn:0 errno:" + std::to_string(error) + "."));
        if (!lost) {
            EXPECT_EQ(test::results().wait(), 7U);
        }
        EXPECT_TRUE(test::end_faults());
        expect_recovered(lost);
    });
}

TEST_F(TrafficFaults, ABodyThatCannotBeReadBringsANewConnection) {
    start();
    for (const int error : test::reset_errors) {
        const test::debugging on;
        const test::bytes result = test::message_bytes({test::item_bytes(401, test::wire().u32(1).u32(7))});
        test::fail_call(call::recv, 2, error);
        daemon.send(side::async, test::slice(result, 0, 8));
        ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));  // the header is one read
        daemon.send(side::async, test::slice(result, 8, result.size() - 8));
        EXPECT_TRUE(test::wait_for_log("recv msg body error! errno:" + std::to_string(error) + "."));
        EXPECT_TRUE(test::end_faults());
        expect_recovered(true);
    }
}

// The receive thread is inside a handler while the fault is set, so that its next wait fails.
TEST_F(TrafficFaults, AWaitThatFailsBringsANewConnectionOrIsMadeAgain) {
    start_with_holding_handler();
    test::for_each_error([&](int error, bool lost) {
        const test::debugging on;
        hold();
        test::fail_call(call::poll, 1, error);
        release();
        EXPECT_TRUE(test::wait_for_log("select error! errno:" + std::to_string(error) + "."));
        EXPECT_TRUE(test::end_faults());
        expect_recovered(lost);
    });
}

TEST_F(TrafficFaults, TheReceiveThreadWaitsForItsSocketAlone) {
    test::end_faults();
    start();
    expect_working();
    EXPECT_EQ(test::most_polled(), 1);
}

// A result that says whether the wait after it has failed already.
void on_svi_and_wait(std::uint32_t result, std::uint32_t, std::uint8_t) {
    test::results().push(test::logged("select error! errno:4.") ? 1 : result);
}

TEST_F(TrafficFaults, WhatArrivedTogetherWithARefusedMessageNeedsNoFurtherWait) {
    const bytes refused[] = {
        wire().u32(40).u8(1).u16(0).u8(0),
        wire().u32(16).u8(1).u16(1).u8(0).u32(1).u16(0).u16(401),
    };
    info.handlers.svi_router_acl = on_svi_and_wait;
    start_with_holding_handler();
    for (const bytes& message : refused) {
        const test::debugging on;
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_svi_router_acl_set(1, &call_id), 0U);
        (void)daemon.read_item(side::async);
        hold();
        daemon.send(side::async, wire().add(message).add(test::message_bytes(
                                     {test::item_bytes(401, wire().u32(call_id).u32(2015))})));
        test::fail_call(call::poll, 2, 4);
        release();
        EXPECT_EQ(test::results().wait(), 2015U);
        EXPECT_TRUE(test::wait_for_log("select error! errno:4."));
        EXPECT_TRUE(test::end_faults());
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(TrafficFaults, AQueryWhoseReplyCannotBeReadIsTheError) {
    start();
    test::for_each_error([&](int error, bool lost) {
        std::uint32_t count = 77;
        test::fail_call(call::recv, 1, error);
        EXPECT_EQ(scc_arp_check_user_count_get(1, &count), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(count, 77U);
        if (lost) {
            expect_reconnection();
        } else {
            EXPECT_EQ(daemon.read_item(side::sync).type, 304);
            daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(8));
        }
        daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(9));
        EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 0U);
        EXPECT_EQ(count, 9U);
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        EXPECT_EQ(test::statuses().size(), 0U);
    });
}

TEST_F(TrafficFaults, EverythingWorksOneByteAtATime) {
    test::limit_transfer(1);
    start();
    expect_working();
    std::uint32_t count = 0;
    daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(9));
    EXPECT_EQ(scc_arp_check_user_count_get(0x01020304, &count), 0U);
    EXPECT_EQ(count, 9U);
    EXPECT_EQ(daemon.read(side::sync).raw,
              bytes(wire().u32(28).u8(1).u16(1).u8(0).u32(12).u16(0).u16(304).u32(0).u32(0x01020304).u32(0)));
    stop();
    EXPECT_EQ(test::statuses().size(), 0U);
}

// ---- a sender of an earlier registration

// Its send, on a thread of its own like a service's answers, returns after another registration has begun.
class LateSender : public TrafficFaults {
  protected:
    ~LateSender() override {
        if (sender_.joinable()) {
            test::released().push(1);
            sender_.join();
        }
    }

    void begin_sending() {
        test::on_call(call::send, test::hold_here);
        sender_ = std::thread([this] {
            EXPECT_EQ(_scc_lib_msg_send_rt(0, 900, "x", 1, 0), 0U);
            over_ = true;
        });
        ASSERT_TRUE(test::entered().wait());
    }

    // The next send of the process is the late one.
    static void fail_sending(int error) {
        test::fail_call(call::send, 1, error);
        test::released().push(1);
    }

    // Until its send has failed and it is about to report that to the library, or has nothing more to do.
    [[nodiscard]] bool is_at_its_recovery() {
        return test::eventually([this] { return over_ || test::entered().size() > 0; });
    }

    void wait_for_sender() { sender_.join(); }

  private:
    std::thread sender_;
    std::atomic<bool> over_{false};
};

TEST_F(LateSender, ThatFailsChangesNothingOfTheNextRegistration) {
    start();
    test::for_each_error([&](int error, bool /*lost*/) {
        begin_sending();
        stop();
        start();
        ASSERT_EQ(_scc_lib_save_call_data(77, 45, nullptr, 0), 0U);
        fail_sending(error);
        wait_for_sender();
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
        EXPECT_EQ(scc::pending_calls(), 1U);
        EXPECT_EQ(scc_lib_rereg.load(), 0U);
        EXPECT_EQ(test::statuses().size(), 0U);
        expect_working();
    });
}

// While a lock is held here, the next registration or connection cannot begin: then this gives up.
void let_the_next_begin() {
    test::entered().push(1);
    (void)test::released().wait(std::chrono::seconds(2));
}

TEST_F(LateSender, ThatFailsWhileItsRegistrationEndsLeavesTheStateOfTheNext) {
    start();
    begin_sending();
    std::thread ending([] { EXPECT_EQ(scc_svr_unreg(), 0U); });
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    test::on_state_set(let_the_next_begin);
    fail_sending(32);
    ASSERT_TRUE(is_at_its_recovery());
    daemon.send_item(side::sync, 302, wire().u32(0).u32(0));
    ending.join();
    start();
    test::released().push(1);
    wait_for_sender();
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    expect_working();
}

TEST_F(LateSender, ThatFailsBeforeItsConnectionEndsLeavesTheCallsOfTheNext) {
    start();
    begin_sending();
    test::on_calls_freed(let_the_next_begin);
    fail_sending(32);
    ASSERT_TRUE(is_at_its_recovery());
    reconnect();
    ASSERT_EQ(_scc_lib_save_call_data(77, 45, nullptr, 0), 0U);
    test::released().push(1);
    wait_for_sender();
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    EXPECT_EQ(scc::pending_calls(), 1U);
    expect_working();
}

// The daemon has a part of the batch, so its stream is out of step.
TEST_F(BatchFaults, AFlushOfWhichAPartWentOutAndTheRestTimedOutEndsTheConnection) {
    start();
    ASSERT_EQ(scc_svi_router_acl_set(3, nullptr), 0U);
    test::limit_transfer(10);
    test::fail_calls_from(call::send, 2, 11);
    // The receive thread registers again at once: the fault ends before it does.
    static std::atomic<int> sends;
    test::on_calls_freed([] {
        sends = test::calls(call::send);
        EXPECT_TRUE(test::end_faults());
    });
    scc::flush_waiting_batch();
    expect_recovered_and_working(true);
    EXPECT_EQ(sends, 22);
    EXPECT_EQ(scc::pending_calls(), 0U);
}

TEST_F(BatchFaults, AFullBatchForTheSynchronousSocketNamesThatSocket) {
    start();
    const test::debugging on;
    const bytes large(5000, 1);
    ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, large.data(), 5000, 1), 0U);
    test::fail_call(call::send, 1, 11);
    EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, large.data(), 5000, 1), 0U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged(message_error("sync", 11)));
}

// ---- without memory, in part, and while the checker cannot wait

TEST_F(BatchFaults, WithoutMemoryDuringAnUnregistrationNothingChanges) {
    start();
    const test::debugging on;
    g_scc_client_cb.app_id = 0;
    const bytes large(8176, 1);
    test::fail_calls_from(call::calloc, 1, 12);
    EXPECT_EQ(_scc_lib_msg_send_rt(0, 901, large.data(), 4, 1), 12U);
    EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, large.data(), 8176, 0), 22U);
    std::uint32_t count = 0;
    EXPECT_EQ(scc_arp_check_user_count_get(1, &count), 12U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    const std::string text = "(app id:0, pid:" + test::own_pid() + ")alloc memory error!";
    EXPECT_EQ(test::logged_failures(), (std::vector<std::string>{text, text, text}));
    g_scc_client_cb.app_id = 7;
    expect_recovered_and_working(false);
}

TEST_F(BatchFaults, AFlushOfWhichAPartWentOutSendsOnlyTheRestAgain) {
    start();
    ASSERT_EQ(scc_svi_router_acl_set(3, nullptr), 0U);
    test::limit_transfer(10);
    test::fail_call(call::send, 2, 11);
    scc::flush_waiting_batch();
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(daemon.read(side::async).raw,
              bytes(wire().u32(24).u8(1).u16(1).u8(0).u32(8).u16(0).u16(143).u32(1).u32(3)));
    expect_recovered_and_working(false);
}

// It flushes once for each wait, so a wait that fails at once does not make it send.
TEST_F(TrafficFaults, ACheckerThatCannotWaitSendsNothing) {
    start();
    test::fail_calls_from(call::select, 1, 9);
    ASSERT_TRUE(test::eventually([] { return test::calls(call::select) > 10; }));
    std::uint32_t call_id = 0;
    ASSERT_EQ(scc_svi_router_acl_set(1, &call_id), 0U);
    const int waits = test::calls(call::select);
    ASSERT_TRUE(test::eventually([waits] { return test::calls(call::select) > waits + 1000; }));
    EXPECT_TRUE(daemon.stays_silent(side::async, 0));
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(call_id).u32(1)));
}

}  // namespace
