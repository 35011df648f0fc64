// The checker thread: it flushes the batch, there is only one, and a failed flush ends the connection.
#include "client/send_checker.h"

#include "client/channel_support.h"
#include "client/request_channel.h"
#include "client/threads.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

class SendChecker : public test::runtime_test {};

TEST_F(SendChecker, SendsAWaitingRequestByItself) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_addr_learning(9, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read(side::async).raw,
              bytes(wire().u32(28).u8(1).u16(1).u8(0).u32(12).u16(0).u16(123).u32(1).u32(9).u32(1)));
    EXPECT_TRUE(
        test::wait_for_log("thread msg(len:28, ver:1, num:1) send len:28, uselen:20. total len:8192."));
}

TEST_F(SendChecker, FindsNothingToFlushBeforeTheFirstStart) {
    scc::flush_waiting_batch();
    EXPECT_EQ(scc_addr_learning(9, 1, nullptr), 2004U);
    scc::flush_waiting_batch();
}

TEST_F(SendChecker, NoRequestOfAFloodIsLostOrReordered) {
    start();
    constexpr std::uint32_t count = 5000;
    std::thread flood([] {
        for (std::uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(scc_addr_learning(i, 1, nullptr), 0U);
        }
    });
    for (std::uint32_t i = 0; i < count; ++i) {
        ASSERT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(i + 1).u32(i).u32(1)));
    }
    flood.join();
}

TEST_F(SendChecker, ThereIsOneOverSeveralRegistrations) {
    for (int round = 0; round < 5; ++round) {
        start();
        EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
        stop();
        EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    }
    EXPECT_EQ(g_send_buf_chk_enabled.load(), 1U);
}

test::event_queue<int>& ended() {
    static auto* queue = new test::event_queue<int>;
    return *queue;
}

TEST_F(SendChecker, ASecondOneEndsAtOnce) {
    start();
    ASSERT_TRUE(test::eventually([] { return g_send_buf_chk_enabled.load() == 1U; }));
    EXPECT_EQ(scc::start_thread(
                  [](void*) -> void* {
                      void* result = _scc_lib_send_buf_chk_thread(nullptr);
                      ended().push(result == nullptr ? 1 : 2);
                      return nullptr;
                  },
                  nullptr),
              0U);
    EXPECT_EQ(ended().wait(), 1);
}

TEST_F(SendChecker, AFailedFlushClosesTheConnectionAndTheReceiveThreadRegistersAgain) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    daemon.close_both();
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_TRUE(test::wait_for_log("(app id:7, pid:" + test::own_pid() + ")send  message error,ret:32!"));
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.async_fd == -1 && scc_lib_rereg == 1; }));
    release();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(scc_addr_learning(2, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(2).u32(2).u32(1)));
}

}  // namespace
