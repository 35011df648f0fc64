// A host's signal handler ends the system call in which the event loop's thread sleeps: the reply still owed
// is never taken for another one, and an interrupted registration is retried.
#include "client/connection.h"
#include "support/crowd.h"
#include "support/loop_application.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

bytes reply_of(std::uint16_t type, std::uint32_t result) {
    return test::message_bytes({test::item_bytes(type, wire().u32(0).u32(result).u32(0))});
}

bytes count_reply(std::uint32_t count) {
    return test::message_bytes({test::item_bytes(411, wire().u32(0).u32(0).u32(count))});
}

// Where a reply may break off: the boundaries of its headers and of its value.
constexpr std::size_t reply_bytes = 28;
constexpr std::size_t borders[] = {0, 1, 7, 8, 15, 16, 17, reply_bytes - 1};

class AgentInterruption : public test::loop_application {
  protected:
    std::future<std::uint32_t> on_loop_aside(const std::function<std::uint32_t()>& function) {
        return std::async(std::launch::async, [this, function] { return on_loop(function); });
    }

    void expect_finish_interrupted(const bytes& sent) {
        std::future<std::uint32_t> running = on_loop_aside(scc_agent_finish);
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        daemon.send(side::sync, sent);
        ASSERT_TRUE(test::all_taken(daemon.fd(side::sync)));
        interrupt_loop(test::waiting_for_bytes);
        EXPECT_EQ(finished(running), 4U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(state(), 4U);
    }

    std::uint32_t result_after(const std::function<std::uint32_t()>& function, std::uint16_t type,
                               const bytes& sent) {
        std::future<std::uint32_t> running = on_loop_aside(function);
        EXPECT_EQ(daemon.read_item(side::sync).type, type);
        daemon.send(side::sync, sent);
        return finished(running);
    }

    void expect_own_count_after(const bytes& sent) {
        std::uint32_t count = 0;
        EXPECT_EQ(result_after([&count] { return scc_arp_check_user_count_get(1, &count); }, 304,
                               wire().add(sent).add(count_reply(31))),
                  0U);
        EXPECT_EQ(count, 31U);
    }

    // The first attempt is abandoned, and the next one succeeds with its own replies.
    void expect_another_attempt() {
        EXPECT_TRUE(daemon.wait_for_close(side::sync));
        EXPECT_TRUE(daemon.wait_for_close(side::async));
        expect_reconnection();
        expect_working_requests();
        expect_own_count_after({});
    }
};

TEST_F(AgentInterruption, OfItsEndLeavesAQueryItsOwnAnswer) {
    start();
    const bytes late = reply_of(302, 1);
    for (const std::size_t length : borders) {
        SCOPED_TRACE(length);
        ASSERT_NO_FATAL_FAILURE(expect_finish_interrupted(test::slice(late, 0, length)));
        expect_own_count_after(test::slice(late, length, late.size() - length));
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_EQ(finish(), 0U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(AgentInterruption, OfItsEndLeavesTheNextItsOwnReply) {
    start();
    ASSERT_NO_FATAL_FAILURE(expect_finish_interrupted({}));
    EXPECT_EQ(result_after(scc_agent_finish, 302, wire().add(reply_of(302, 0)).add(reply_of(302, 1))), 2001U);
    if (HasFailure()) {
        return;
    }
    expect_working_requests();
    ASSERT_NO_FATAL_FAILURE(expect_finish_interrupted({}));
    EXPECT_EQ(result_after(scc_agent_finish, 302, wire().add(reply_of(302, 1)).add(reply_of(302, 0))), 0U);
    EXPECT_EQ(state(), 1U);
    start();
    expect_own_count_after({});
}

TEST_F(AgentInterruption, OfAQueryLeavesTheNextItsOwnAnswer) {
    start();
    const bytes late = count_reply(8);
    for (const std::size_t length : borders) {
        SCOPED_TRACE(length);
        std::uint32_t count = 77;
        std::future<std::uint32_t> running =
            on_loop_aside([&count] { return scc_arp_check_user_count_get(1, &count); });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(side::sync, test::slice(late, 0, length));
        ASSERT_TRUE(test::all_taken(daemon.fd(side::sync)));
        interrupt_loop(test::waiting_for_bytes);
        EXPECT_EQ(finished(running), 4U);
        EXPECT_EQ(count, 77U);
        expect_own_count_after(test::slice(late, length, late.size() - length));
        if (HasFailure()) {
            return;
        }
    }
}

class AgentRegistrationInterruption : public AgentInterruption,
                                      public ::testing::WithParamInterface<std::size_t> {};

TEST_P(AgentRegistrationInterruption, OfTheFirstReplyIsAFailedAttempt) {
    ASSERT_EQ(init(), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    daemon.send(side::sync, test::slice(reply_of(301, 0), 0, GetParam()));
    ASSERT_TRUE(test::all_taken(daemon.fd(side::sync)));
    interrupt_loop(test::waiting_for_bytes);
    expect_another_attempt();
}

TEST_P(AgentRegistrationInterruption, OfTheSecondReplyIsAFailedAttempt) {
    ASSERT_EQ(init(), 0U);
    daemon.accept_both();
    daemon.answer_registration(side::sync);
    EXPECT_EQ(daemon.read_item(side::async).type, 301);
    daemon.send(side::async, test::slice(reply_of(301, 0), 0, GetParam()));
    ASSERT_TRUE(test::all_taken(daemon.fd(side::async)));
    interrupt_loop(test::waiting_for_bytes);
    expect_another_attempt();
}

INSTANTIATE_TEST_SUITE_P(AtEachBorder, AgentRegistrationInterruption, ::testing::ValuesIn(borders));

TEST_F(AgentInterruption, OfConnectingIsAFailedAttempt) {
    const std::vector<int> others = test::crowd(daemon.directory());
    ASSERT_EQ(init(), 0U);
    interrupt_loop({SYS_connect});
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    for (const int fd : others) {
        close(fd);
    }
    // Excluding those not accepted yet.
    daemon.stop_listening();
    daemon.listen();
    expect_reconnection();
    expect_working_requests();
    expect_own_count_after({});
}

}  // namespace
