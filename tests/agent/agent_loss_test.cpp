// Every way in which the event-loop agent loses a connection and regains it. The loop has a thread of its
// own; the test's thread is the daemon.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/agent_support.h"
#include "client/descriptors.h"
#include "client/pending_calls.h"

using test::Agent;
using test::answers;
using test::bytes;
using test::connections;
using test::on_connection;
using test::side;
using test::wire;

namespace {

TEST_F(Agent, ThatLosesItsDaemonDropsItsCallsAndComesBack) {
    start();
    const test::debugging on;
    ASSERT_EQ(scc_addr_learning(5, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    daemon.close_both();
    ASSERT_TRUE(test::wait_for_log("scc msg recv error. rv=32, Broken pipe"));
    expect_reconnection();
    EXPECT_TRUE(test::logged("scc client start to try re-reg."));
    EXPECT_TRUE(test::logged("register to sccd success!"));
    EXPECT_EQ(test::added_tasks("scc-reconnect").front().number, 3);
    expect_first_call_dropped();
}

TEST_F(Agent, BeingUnregisteredOnlySetsTheStateBackWhenReadingFails) {
    start();
    const test::debugging on;
    test::forget_added_tasks();
    in_loop([] { g_scc_client_cb.app_id.store(0); });
    daemon.close_side(side::async);
    ASSERT_TRUE(test::wait_for_log("scc msg recv error. rv=32, Broken pipe"));
    settle();
    EXPECT_EQ(state(), 1U);
    EXPECT_FALSE(scc::is_pending(scc::task_reconnect));
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
}

TEST_F(Agent, ReportsAnOutageOnceHoweverManyAttemptsFail) {
    start();
    daemon.stop_listening();
    daemon.close_both();
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 5));
    daemon.listen();
    expect_reconnection();
    daemon.close_both();
    expect_reconnection();
}

TEST_F(Agent, IsInStateFailedBetweenTwoReconnections) {
    start();
    daemon.stop_listening();
    in_loop([this] {
        test::set_timer_seconds(1000);
        daemon.close_both();
    });
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    settle();
    EXPECT_EQ(state(), 1U);
    in_loop([] {
        EXPECT_EQ(_scc_lib_agent_reconnect(nullptr), 2);  // the daemon's socket file has gone
        EXPECT_EQ(state(), 5U);
        EXPECT_TRUE(scc::is_pending(scc::task_reconnect));
        EXPECT_FALSE(_scc_lib_client_is_connected());
        scc::cancel_all_tasks();
        EXPECT_EQ(_scc_lib_agent_reconnect(nullptr), 2);
        EXPECT_EQ(state(), 5U);
    });
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_EQ(test::statuses().size(), 0U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
}

// A running task cannot be cancelled any more.
TEST_F(Agent, CancelsNoTaskFromInsideItself) {
    daemon.stop_listening();
    ASSERT_EQ(init(), 0U);
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 4));
    EXPECT_TRUE(test::cancelled_tasks("scc-connect").empty());
    EXPECT_TRUE(test::cancelled_tasks("scc-reconnect").empty());
    daemon.listen();
    expect_reconnection();
    daemon.close_both();
    expect_reconnection();
    EXPECT_TRUE(test::cancelled_tasks("scc-read").empty());
    EXPECT_TRUE(test::cancelled_tasks("scc-reconnect").empty());
}

TEST_F(Agent, SchedulesNothingWhenAReconnectionFailsWhileItUnregisters) {
    start();
    in_loop([this] {
        test::set_timer_seconds(1000);
        daemon.stop_listening();
        daemon.close_both();
    });
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    in_loop([] {
        scc::cancel_all_tasks();
        g_scc_client_cb.app_id.store(0);
        EXPECT_EQ(_scc_lib_agent_reconnect(nullptr), 0);
        EXPECT_FALSE(scc::is_pending(scc::task_reconnect));
    });
}

TEST_F(Agent, FindsADaemonThatComesLaterThanItself) {
    const test::debugging on;
    daemon.stop_listening();
    scc_agent_set_connect_callback(on_connection);
    ASSERT_EQ(init(), 0U);
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 4));
    EXPECT_EQ(connections().size(), 0U);
    daemon.listen();
    expect_reconnection();  // status 0 once, by the first of the reconnections
    EXPECT_EQ(connections().wait(), 4);
    EXPECT_TRUE(test::logged("connect to sccd failed!!!"));
    EXPECT_TRUE(test::logged("reason:No such file or directory"));
    expect_working_requests();
}

TEST_F(Agent, TriesAgainAfterARefusedRegistration) {
    const test::debugging on;
    ASSERT_EQ(init(), 0U);
    daemon.accept_both();
    daemon.answer_registration(side::sync, 2002, 4711);
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    daemon.accept_both();
    daemon.answer_registration(side::sync);
    daemon.answer_registration(side::async, 2000);
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_TRUE(test::logged(identity() + "reg action rejected by sccd!"));
    EXPECT_TRUE(test::logged("app id:7 already registered by pid:4711!"));
}

TEST_F(Agent, SurvivesADaemonThatGoesAwayDuringTheRegistration) {
    ASSERT_EQ(init(), 0U);
    daemon.accept_both();
    daemon.answer_registration(side::sync);
    daemon.close_both();
    daemon.accept_both();
    daemon.close_both();
    expect_reconnection();
    expect_working_requests();
}

TEST_F(Agent, ComesBackWhenAQueryOfAnotherThreadFindsTheConnectionDead) {
    start();
    const test::debugging on;
    test::forget_added_tasks();
    daemon.close_side(side::sync);  // the loop watches the other socket and sees nothing
    std::uint32_t count = 0;
    EXPECT_NE(scc_arp_check_user_count_get(1, &count), 0U);
    EXPECT_TRUE(test::logged(identity() + "send sync message error(rv:32)!"));
    expect_reconnection();
    EXPECT_EQ(test::added_tasks("scc-reconnect").size(), 1U);
    expect_working_requests();
    expect_answer(1);
}

TEST_F(Agent, CancelsWhatIsPendingWhenASendOfAnotherThreadFails) {
    start();
    while_the_loop_is_busy([this] {
        test::set_timer_seconds(1000);
        ASSERT_TRUE(scc::is_pending(scc::task_read));
        ASSERT_EQ(_scc_lib_thread_event(1, nullptr, -1), 0);
        ASSERT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);
        test::set_timer_seconds(0);
        daemon.close_side(side::sync);
        std::uint32_t count = 0;
        EXPECT_NE(scc_arp_check_user_count_get(1, &count), 0U);
        EXPECT_EQ(state(), 1U);
        EXPECT_FALSE(scc::is_pending(scc::task_connect));
        EXPECT_FALSE(scc::is_pending(scc::task_read));
        EXPECT_TRUE(scc::is_pending(scc::task_reconnect));
    });
    expect_reconnection();
}

// The loop's contract does not promise that a thread unknown to the application may call it.
TEST_F(Agent, LeavesItsTasksToTheLoopsThreadWhenTheCheckerFindsTheConnectionDead) {
    start();
    std::thread::id loop;
    in_loop([&] { loop = std::this_thread::get_id(); });
    for (const bool busy : {false, true}) {
        SCOPED_TRACE(busy);
        const test::debugging on;
        test::forget_added_tasks();
        const auto lose = [this] {
            ASSERT_EQ(shutdown(daemon.fd(side::async), SHUT_RD), 0);  // sends fail, and the loop sees nothing
            ASSERT_EQ(scc_addr_learning(5, 1, nullptr), 0U);
            ASSERT_TRUE(test::wait_for_log(identity() + "send  message error,ret:32!"));
        };
        if (busy) {
            while_the_loop_is_busy(lose);
        } else {
            lose();
        }
        expect_reconnection();
        EXPECT_EQ(test::added_tasks("scc-reconnect").size(), 1U);
        EXPECT_THAT(test::threads_that_called(), ::testing::Each(loop));
        expect_working_requests();
        expect_answer(busy ? 4 : 2);
    }
}

TEST_F(Agent, ComesBackWhenTheCheckerFindsTheConnectionDead) {
    start();
    const test::debugging on;
    lose_to_the_checker();
    expect_reconnection();
    EXPECT_TRUE(test::logged("scc client start to try re-reg."));
    EXPECT_EQ(test::added_tasks("scc-reconnect").size(), 1U);
    expect_working_requests();
}

// An error that left the connection alive has ended the reading, so no task notices that the sockets close.
TEST_F(Agent, ThatDoesNotReadComesBackWithTheNextRequest) {
    test::keep_from_loop("scc-read");
    start();
    test::keep_from_loop("");
    const test::debugging on;
    daemon.close_both();
    ASSERT_EQ(scc_addr_learning(5, 1, nullptr), 0U);
    EXPECT_TRUE(test::wait_for_log(identity() + "send  message error,ret:32!"));
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty()) << "the checker has used the event library";
    EXPECT_TRUE(test::eventually([] {
        return scc_addr_learning(5, 1, nullptr) != 0U || !test::added_tasks("scc-reconnect").empty();
    }));
    expect_reconnection();
    expect_working_requests();
}

TEST_F(Agent, DropsItsCallsWhenTheCheckerFindsTheConnectionDead) {
    start();
    const test::debugging on;
    lose_to_the_checker();
    expect_reconnection();
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_first_call_dropped();
}

TEST_F(Agent, ReconnectsOnceWhenEveryThreadNoticesTheLossTogether) {
    start();
    std::atomic<bool> over{false};
    std::atomic<int> sending{3};
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 3; ++sender) {
        senders.emplace_back([&over, &sending, sender] {
            std::uint32_t count = 0;
            while (!over) {
                // Queries are never answered: each is sent, and fails when the connection ends.
                const std::uint32_t result =
                    sender == 0 ? scc_arp_check_user_count_get(1, &count) : scc_addr_learning(5, 1, nullptr);
                EXPECT_NE(result, 12U);
                std::this_thread::yield();
            }
            --sending;
        });
    }
    // A query may go out on the connection that follows the last round: it ends with that one.
    std::size_t losses = 0;
    for (; losses < 20 || sending != 0; ++losses) {
        over = losses >= 20;
        daemon.close_both();
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 0U) << losses;
        EXPECT_EQ(test::statuses().wait(), 1U) << losses;
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    settle();
    EXPECT_EQ(state(), 4U);
    EXPECT_EQ(test::statuses().size(), 0U);
    EXPECT_EQ(test::added_tasks("scc-reconnect").size(), losses);
}

TEST_F(Agent, LogsNothingWhileTheSwitchIsOff) {
    test::clear_log();
    EXPECT_EQ(scc_agent_init(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_agent_finish(), 0U);
    EXPECT_EQ(_scc_lib_thread_event(9, nullptr, -1), -1);
    start();
    EXPECT_EQ(init(), 0U);
    expect_working_requests();
    daemon.stop_listening();
    daemon.close_both();
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 2));
    daemon.listen();
    expect_reconnection();
    EXPECT_EQ(finish(5), 2001U);
    EXPECT_EQ(finish(), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

}  // namespace
