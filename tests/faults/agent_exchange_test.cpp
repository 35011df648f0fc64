// The event-loop agent when a message to the daemon is not sent, or only in part.
#include "client/connection.h"
#include "client/request_channel.h"
#include "support/faults.h"
#include "support/loop_application.h"

using test::call;
using test::side;
using test::wire;

namespace {

constexpr int no_buffers = 105;

class AgentExchange : public test::loop_application {
  protected:
    ~AgentExchange() override { test::end_faults(); }

    std::future<std::uint32_t> on_loop_aside(const std::function<std::uint32_t()>& function) {
        return std::async(std::launch::async, [this, function] { return on_loop(function); });
    }

    static std::uint32_t count_users() {
        std::uint32_t count = 0;
        return scc_arp_check_user_count_get(1, &count);
    }

    void expect_working_query() {
        std::future<std::uint32_t> running = on_loop_aside(count_users);
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send_item(side::sync, 411, wire().u32(0).u32(0).u32(9));
        EXPECT_EQ(finished(running), 0U);
    }
};

// The library's first send, or its second after the daemon's own first.
TEST_F(AgentExchange, OfARegistrationWhoseSendFailsIsAFailedAttempt) {
    for (const int nth : {1, 3}) {
        SCOPED_TRACE(nth);
        test::fail_call(call::send, nth, no_buffers);
        ASSERT_EQ(init(), 0U);
        daemon.accept_both();
        if (nth == 3) {
            daemon.answer_registration(side::sync);
        }
        EXPECT_TRUE(daemon.wait_for_close(side::async)) << "the loop waits for a reply";
        EXPECT_TRUE(test::end_faults());
        expect_reconnection();
        if (HasFailure()) {
            return;
        }
        expect_working_requests();
        expect_working_query();
        EXPECT_EQ(finish(), 0U);
    }
}

TEST_F(AgentExchange, OfItsEndWhoseSendFailsReturnsTheErrorAndStaysRegistered) {
    start();
    for (const int error : {4, 11, no_buffers}) {
        SCOPED_TRACE(error);
        test::fail_call(call::send, 1, error);
        std::future<std::uint32_t> running = on_loop_aside(scc_agent_finish);
        EXPECT_EQ(finished(running), static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        if (HasFailure()) {
            return;
        }
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(state(), 4U);
        expect_working_query();
    }
    expect_working_requests();
    EXPECT_EQ(finish(), 0U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(AgentExchange, OfItsEndWhoseSendFindsTheConnectionDeadSucceeds) {
    start();
    test::fail_call(call::send, 1, 32);
    std::future<std::uint32_t> running = on_loop_aside(scc_agent_finish);
    EXPECT_EQ(finished(running), 0U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(state(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(AgentExchange, WhoseRequestWentOutInPartStartsTheConnectionOver) {
    start();
    for (const bool is_query : {true, false}) {
        for (const int error : {4, 11, no_buffers}) {
            SCOPED_TRACE(::testing::Message()
                         << (is_query ? "query" : "notification") << ", error " << error);
            test::limit_transfer(10);
            test::fail_call(call::send, 2, error);
            std::future<std::uint32_t> running =
                on_loop_aside(is_query ? count_users : [] { return scc_warterline_notify(1); });
            EXPECT_EQ(finished(running), is_query ? static_cast<std::uint32_t>(error) : 0U);
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(daemon.wait_for_close(side::sync)) << "the connection stays";
            if (HasFailure()) {
                return;
            }
            expect_reconnection();
            expect_working_requests();
            expect_working_query();
        }
    }
}

TEST_F(AgentExchange, WithoutMemoryForTheRecordOfATaskSchedulesNone) {
    start();
    in_loop([] {
        scc::cancel_all_tasks();
        test::forget_added_tasks();
        const test::debugging on;
        test::fail_allocation(1);
        EXPECT_EQ(_scc_lib_thread_event(scc::task_read, nullptr, g_scc_client_cb.async_fd.load()), -1);
        EXPECT_TRUE(test::end_faults());
        EXPECT_TRUE(test::logged("Failed to add qx_thread for scc_lib_read"));
        EXPECT_TRUE(test::added_tasks().empty());
    });
}

}  // namespace
