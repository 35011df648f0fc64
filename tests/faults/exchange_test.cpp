// Exchanges on the synchronous socket whose request is not sent, or only in part, or whose reply cannot be
// allocated: the caller gets the error at once, and the next exchange is not out of step.
#include <sys/socket.h>

#include <cstdlib>

#include "client/connection.h"
#include "client/locks.h"
#include "client/message_reader.h"
#include "client/request_channel.h"
#include "fault_support.h"
#include "support/aside.h"

using test::bytes;
using test::call;
using test::side;
using test::wire;

namespace {

constexpr int no_buffers = 105;

class Exchange : public test::fault_test {
  protected:
    using asking = test::aside<std::uint32_t>;

    // Waits for the call; one that does not return fails the test and is released.
    std::uint32_t finished(asking& running) {
        if (!running.returns()) {
            ADD_FAILURE() << "the call does not return";
            test::end_faults();
            daemon.stop_listening();
            daemon.close_both();
        }
        return running.get();
    }

    static std::uint32_t count_users(std::uint32_t* count) {
        *count = 77;
        return scc_arp_check_user_count_get(1, count);
    }

    static bytes count_reply(std::uint32_t count) {
        return test::message_bytes({test::item_bytes(411, wire().u32(0).u32(0).u32(count))});
    }

    static bytes unregistration_reply(std::uint32_t result) {
        return test::message_bytes({test::item_bytes(302, wire().u32(0).u32(result))});
    }

    // The next thing on the socket is a query, which gets its own answer after these bytes.
    void expect_own_count(std::uint32_t expected, const bytes& before = {}) {
        std::uint32_t count = 0;
        asking running([&count] { return count_users(&count); });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(side::sync, wire().add(before).add(count_reply(expected)));
        EXPECT_EQ(finished(running), 0U);
        EXPECT_EQ(count, expected);
    }

    // A signal ends a query after these bytes of its reply have arrived.
    void expect_interrupted(const bytes& sent, std::uint32_t code = 4) {
        test::handle_interruptions();
        std::uint32_t count = 0;
        asking running([&count] { return count_users(&count); });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(side::sync, sent);
        ASSERT_TRUE(test::all_taken(daemon.fd(side::sync)));
        ASSERT_TRUE(running.waits_in(test::waiting_for_bytes));
        running.interrupt();
        EXPECT_EQ(finished(running), code);
        EXPECT_EQ(count, 77U);
    }

    static void expect_lock_free() {
        ASSERT_EQ(pthread_rwlock_trywrlock(&scc_lib_lock), 0);
        pthread_rwlock_unlock(&scc_lib_lock);
    }

    void expect_still_registered() {
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
        EXPECT_EQ(test::statuses().size(), 0U);
        expect_lock_free();
    }

    // Messages that fill the synchronous socket; the daemon reads none of them yet.
    static int fill_the_sync_socket() {
        const bytes filling = test::message_bytes({test::item_bytes(220, bytes(300, 1))});
        const int fd = g_scc_client_cb.sync_fd;
        const int smallest = 1;
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
        int count = 0;
        while (::send(fd, filling.data(), filling.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(filling.size())) {
            ++count;
        }
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_GT(count, 0);
        return count;
    }

    void read_the_filling(int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(daemon.read_item(side::sync).type, 220);
        }
    }
};

// ---- a request that is not sent --------------------------------------------------------------------

TEST_F(Exchange, OfADaemonThatStallsReturnsTheTimeOutAndGoesOnWhenItReadsAgain) {
    start();
    const int filling = fill_the_sync_socket();
    std::uint32_t count = 0;
    asking running([&count] { return count_users(&count); });
    EXPECT_EQ(finished(running), 11U);
    if (HasFailure()) {
        return;
    }
    EXPECT_EQ(count, 77U);
    expect_still_registered();
    read_the_filling(filling);
    expect_own_count(9);
    expect_working();
}

TEST_F(Exchange, UnregisteringFromAStalledDaemonTimesOutAndStaysRegistered) {
    start();
    const int filling = fill_the_sync_socket();
    asking running(scc_svr_unreg);
    EXPECT_EQ(finished(running), 11U);
    if (HasFailure()) {
        return;
    }
    expect_still_registered();
    read_the_filling(filling);
    expect_own_count(9);
    expect_working();
    stop();
}

TEST_F(Exchange, WhoseSendFailsReturnsTheErrorWithoutWaitingForAReply) {
    start();
    for (const int error : {4, 11, 12, no_buffers}) {
        SCOPED_TRACE(error);
        test::fail_call(call::send, 1, error);
        std::uint32_t count = 0;
        asking running([&count] { return count_users(&count); });
        EXPECT_EQ(finished(running), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        if (HasFailure()) {
            return;
        }
        EXPECT_EQ(count, 77U);
        expect_still_registered();
        expect_own_count(9);
    }
    expect_working();
}

TEST_F(Exchange, WhoseSendFindsADeadConnectionReturnsTheErrorAndRecovers) {
    start();
    for (const int error : test::reset_errors) {
        SCOPED_TRACE(error);
        test::fail_call(call::send, 1, error);
        std::uint32_t count = 0;
        asking running([&count] { return count_users(&count); });
        EXPECT_EQ(finished(running), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        if (HasFailure()) {
            return;
        }
        expect_reconnection();
        expect_own_count(9);
    }
    expect_working();
}

TEST_F(Exchange, OfAnUnregistrationWhoseSendFailsReturnsTheErrorAndStaysRegistered) {
    start();
    for (const int error : {4, 11, 12, no_buffers}) {
        SCOPED_TRACE(error);
        test::fail_call(call::send, 1, error);
        asking running(scc_svr_unreg);
        EXPECT_EQ(finished(running), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        if (HasFailure()) {
            return;
        }
        expect_still_registered();
        expect_own_count(9);
    }
    expect_working();
    stop();
}

TEST_F(Exchange, OfAnUnregistrationWhoseSendFindsTheConnectionDeadSucceeds) {
    for (const int error : test::reset_errors) {
        SCOPED_TRACE(error);
        start();
        test::fail_call(call::send, 1, error);
        asking running(scc_svr_unreg);
        EXPECT_EQ(finished(running), 0U);
        EXPECT_TRUE(test::end_faults());
        if (HasFailure()) {
            return;
        }
        EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
        EXPECT_EQ(test::statuses().size(), 0U);
        expect_lock_free();
        EXPECT_TRUE(daemon.wait_for_close(side::async));
    }
}

// ---- a registration --------------------------------------------------------------------------------

// The library's first send, or its second after the daemon's own first.
class RegistrationSendFaults : public Exchange, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(RegistrationSendFaults, FailTheAttemptAndTheNextSucceeds) {
    const auto [nth, error] = GetParam();
    info.app_id = 7;
    info.handlers.server_status = test::on_status;
    test::fail_call(call::send, nth, error);
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_both();
    if (nth == 3) {
        daemon.answer_registration(side::sync);
    }
    EXPECT_TRUE(daemon.wait_for_close(side::async)) << "the attempt waits for a reply";
    EXPECT_TRUE(test::end_faults());
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
    expect_own_count(9);
    expect_working();
}

INSTANTIATE_TEST_SUITE_P(EachSocket, RegistrationSendFaults,
                         ::testing::Values(std::pair{1, no_buffers}, std::pair{3, no_buffers},
                                           std::pair{1, 11}, std::pair{3, 4}),
                         [](const auto& row) {
                             return std::string(row.param.first == 1 ? "sync" : "async") + "error" +
                                    std::to_string(row.param.second);
                         });

// ---- a request that is sent in part ----------------------------------------------------------------

// A query, a message without a reply and an oversized value: the daemon cannot tell any of them from what
// would follow.
TEST_F(Exchange, WhoseRequestWentOutInPartEndsTheConnection) {
    const std::function<std::uint32_t()> acts[] = {
        [] {
            std::uint32_t count = 0;
            return count_users(&count);
        },
        [] { return scc_warterline_notify(1); },
        [] { return _scc_lib_msg_send_bt(0, 901, bytes(8176, 1).data(), 8176, 0) == 22 ? 0U : 1U; },
    };
    start();
    for (std::size_t i = 0; i < std::size(acts); ++i) {
        for (const int error : {4, 11, no_buffers}) {
            SCOPED_TRACE(::testing::Message() << "act " << i << ", error " << error);
            test::limit_transfer(10);
            test::fail_call(call::send, 2, error);
            asking running(acts[i]);
            EXPECT_EQ(finished(running), i == 0 ? static_cast<std::uint32_t>(error) : 0U);
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(daemon.wait_for_close(side::sync)) << "the connection stays";
            if (HasFailure()) {
                return;
            }
            expect_reconnection();
            EXPECT_EQ(test::statuses().size(), 0U);
            expect_own_count(9);
        }
    }
    expect_working();
}

// ---- a reply without memory ------------------------------------------------------------------------

// Whatever the library allocates: the request's message, an owed reply or the reply itself.
TEST_F(Exchange, WithoutMemoryWhileAReplyIsOwedLeavesTheNextItsOwnAnswer) {
    start();
    for (int nth = 2; nth <= 4; ++nth) {
        SCOPED_TRACE(nth);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted({}));
        std::uint32_t count = 0;
        test::fail_allocation(nth);
        asking running([&count] { return count_users(&count); });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(side::sync, wire().add(count_reply(8)).add(count_reply(9)));
        const std::uint32_t code = finished(running);
        test::end_faults();
        EXPECT_TRUE(code == 0 ? count == 9 : code == 12 && count == 77) << code << ", " << count;
        if (HasFailure()) {
            return;
        }
        expect_own_count(10);
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Exchange, InterruptedPastAReplyWithoutMemoryLeavesTheNextItsAnswer) {
    start();
    const bytes late = count_reply(8);
    for (const std::size_t length : {std::size_t{8}, std::size_t{9}, std::size_t{27}}) {
        SCOPED_TRACE(length);
        test::fail_allocation(2);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(test::slice(late, 0, length), 12));
        EXPECT_TRUE(test::end_faults());
        expect_own_count(9, test::slice(late, length, late.size() - length));
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

// ---- the batch -------------------------------------------------------------------------------------

constexpr int batch_block_bytes = 8224;

TEST_F(Exchange, WithoutTheBatchTheNextRequestAllocatesItAndSucceeds) {
    const test::debugging on;
    test::fail_allocations_of(batch_block_bytes);
    start();
    EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ")alloc memory error!"));
    std::uint32_t call_id = 0;
    EXPECT_EQ(scc_svi_router_acl_set(1, &call_id), 12U);
    EXPECT_EQ(scc_svi_router_acl_set(1, &call_id), 12U);
    EXPECT_TRUE(test::end_faults());
    expect_working();
    expect_working();
    EXPECT_EQ(test::statuses().size(), 0U);
}

// ---- errors are reported unchanged -----------------------------------------------------------------

class ExchangeLog : public Exchange {
  protected:
    ExchangeLog() { g_send_buf_chk_enabled = 1; }
    ~ExchangeLog() override { test::leave_errno_in_log(0); }
};

TEST_F(ExchangeLog, NamesTheReasonOfAFailedCloseThoughTheLogChangesErrno) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    test::leave_errno_in_log(2);
    test::fail_calls_from(call::close, 1, 5);
    EXPECT_EQ(_scc_lib_client_close(), -1);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"close sync socket failed!!!", "reason:Input/output error",
                                        "close async socket failed!!!", "reason:Input/output error"}));
    // The numbers are no longer ours: take them out by hand before the thread continues.
    g_scc_client_cb.sync_fd = -1;
    g_scc_client_cb.async_fd = -1;
    scc_lib_rereg = 1;
    release();
    expect_reconnection();
}

TEST_F(ExchangeLog, NamesTheErrorOfAFlushOfWhichAPartWentOut) {
    start();
    const bytes half(4088, 1);
    for (const int error : {4, 104, no_buffers}) {
        SCOPED_TRACE(error);
        const test::debugging on;
        test::leave_errno_in_log(2);
        ASSERT_EQ(_scc_lib_msg_send_bt(0, 900, half.data(), 4088, 0), 0U);
        test::limit_transfer(100);
        test::fail_call(call::send, 3, error);
        EXPECT_EQ(_scc_lib_msg_send_bt(0, 901, half.data(), 4088, 0), 0U);
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() +
                                 ")send async message error(rv:" + std::to_string(error) + ")!"));
        EXPECT_TRUE(test::logged("!!!!_scc_lib_msg_send_rt rv :" + std::to_string(error) + " !!!!."));
        // The daemon cannot tell what follows from the rest of that message.
        EXPECT_TRUE(daemon.wait_for_close(side::async)) << "the connection stays";
        if (HasFailure()) {
            return;
        }
        expect_reconnection();
    }
}

TEST_F(ExchangeLog, NamesTheErrorOfTheCheckersFlushOfWhichAPartWentOut) {
    start();
    for (const int error : {4, 104, no_buffers}) {
        SCOPED_TRACE(error);
        const test::debugging on;
        test::leave_errno_in_log(2);
        ASSERT_EQ(scc_svi_router_acl_set(1, nullptr), 0U);
        test::limit_transfer(10);
        test::fail_call(call::send, 2, error);
        scc::flush_waiting_batch();
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() +
                                 ")send  message error,ret:" + std::to_string(error) + "!"));
        expect_reconnection();
    }
}

TEST_F(Exchange, OfAnUnregistrationThatWentOutInPartEndsTheConnection) {
    start();
    for (const int error : {4, 11, no_buffers}) {
        SCOPED_TRACE(error);
        test::limit_transfer(10);
        test::fail_call(call::send, 2, error);
        EXPECT_EQ(scc_svr_unreg(), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        expect_reconnection();
        if (HasFailure()) {
            return;
        }
        expect_working();
    }
}

TEST_F(Exchange, InterruptedTwiceWhileItReadsPastAMessageKeepsItsPlace) {
    start();
    const bytes message = test::message_bytes({test::item_bytes(999, bytes(20, 1))});
    void* out = nullptr;
    daemon.send(side::sync, test::slice(message, 0, 12));
    test::fail_call(call::malloc, 1, 12);
    test::fail_call(call::recv, 3, 4);  // after the header and the four bytes that have arrived
    EXPECT_EQ(_scc_lib_msg_recv(&out, 1), 12U);
    EXPECT_TRUE(test::end_faults());
    test::fail_call(call::recv, 1, 4);
    EXPECT_EQ(_scc_lib_msg_recv(&out, 1), 4U);
    EXPECT_TRUE(test::end_faults());
    daemon.send(side::sync, test::slice(message, 12, message.size() - 12));
    daemon.send_item(side::sync, 998, bytes(3, 2));
    ASSERT_EQ(_scc_lib_msg_recv(&out, 1), 0U);
    const auto* received = static_cast<const std::uint8_t*>(out);
    EXPECT_EQ(bytes(received, received + 19), test::message_bytes({test::item_bytes(998, bytes(3, 2))}));
    std::free(out);
}

}  // namespace
