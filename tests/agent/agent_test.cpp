// The event-loop agent: its start and end, and reading. The loop has a thread of its own; the test's thread
// is the daemon.
#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "agent/agent_support.h"
#include "client/descriptors.h"
#include "client/pending_calls.h"

using test::Agent;
using test::answers;
using test::bytes;
using test::connections;
using test::on_answer;
using test::on_connection;
using test::side;
using test::wire;

namespace {

std::atomic<std::uint32_t> finish_result{~0U};

void finish_on_answer(std::uint32_t result, std::uint32_t call_id, std::uint32_t, std::uint8_t) {
    finish_result = scc_agent_finish();
    answers().push({result, call_id, std::this_thread::get_id()});
}

// ---- the start

TEST_F(Agent, LooksAtTheMasterBeforeItLooksAtTheRecord) {
    const test::debugging on;
    EXPECT_EQ(scc_agent_init(nullptr, nullptr), 22U);
    EXPECT_EQ(scc_agent_init(nullptr, master), 22U);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"input param master is null!", "input param scc_reg is null!"}));
}

TEST_F(Agent, RefusesInSilenceWhileTheSwitchIsOff) {
    test::clear_log();
    EXPECT_EQ(scc_agent_init(&info, nullptr), 22U);
    EXPECT_EQ(scc_agent_init(nullptr, master), 22U);
    info.app_id = 20;
    EXPECT_EQ(scc_agent_init(&info, master), 22U);
    info.app_id = 7;
    start();
    EXPECT_EQ(_scc_lib_thread_event(4, nullptr, 0), 0);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(Agent, RefusesAppIdsOutsideOneToNineteen) {
    const test::debugging on;
    for (const std::uint32_t app_id : {0U, 20U, 0xFFFFFFFFU}) {
        info.app_id = app_id;
        test::clear_log();
        EXPECT_EQ(scc_agent_init(&info, master), 22U) << app_id;
        EXPECT_EQ(test::log_texts(), std::vector<std::string>{"app id is invalid in register param!"});
    }
    EXPECT_TRUE(test::added_tasks().empty());
}

TEST_F(Agent, RegistersTheHighestAppIdOnBothSocketsWithTheRecordsOption) {
    info.app_id = 19;
    info.option = 3;
    ASSERT_EQ(init(), 0U);
    const auto [sync, async] = daemon.accept_registration();
    const auto pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(sync, bytes(wire().u32(19).u32(pid).u8(3).u8(1).zeros(2)));
    EXPECT_EQ(async, bytes(wire().u32(19).u32(pid).u8(3).u8(0).zeros(2)));
    EXPECT_EQ(test::statuses().wait(), 1U);
    settle();
    EXPECT_EQ(state(), 4U);
    EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 0U);
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
}

TEST_F(Agent, KeepsACopyOfTheRecord) {
    in_loop([this] {
        auto record = info;
        EXPECT_EQ(scc_agent_init(&record, master), 0U);
        std::memset(&record, 0xEE, sizeof record);
    });
    const bytes sync = daemon.accept_registration().first;
    EXPECT_EQ(test::u32_at(sync, 0), 7U);
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Agent, SaysWhatItHasReachedOnTheWay) {
    const test::debugging on;
    scc_agent_set_connect_callback(on_connection);
    start();
    EXPECT_EQ(connections().wait(), 4);
    const auto texts = test::log_texts();
    const auto connected = std::ranges::find(texts, identity() + "connect to sccd success!");
    EXPECT_NE(std::find(connected, texts.end(), identity() + "register to sccd success!"), texts.end());
}

TEST_F(Agent, RegistersTheAsynchronousSocketOnlyAfterTheOtherWasAccepted) {
    ASSERT_EQ(init(), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    daemon.send_item(side::sync, 301, wire().u32(0).u32(2002).u32(99));
    std::uint8_t byte = 0;
    EXPECT_EQ(read(daemon.fd(side::async), &byte, 1), 0) << "it registered, or did not close";
    daemon.accept_registration();
}

TEST_F(Agent, StartedTwiceSaysSoAndGoesOn) {
    start();
    const test::debugging on;
    test::forget_added_tasks();
    EXPECT_EQ(init(), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{identity() + " already registered!"});
    EXPECT_TRUE(test::added_tasks("scc-connect").empty());
    expect_working_requests();
}

TEST_F(Agent, LeavesTheModeOfTheRuntimeDirectoryAsItIs) {
    ASSERT_EQ(chmod(daemon.directory().runtime().c_str(), 0700), 0);
    start();
    struct stat found {};
    ASSERT_EQ(stat(daemon.directory().runtime().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777U, 0700U);
    EXPECT_EQ(umask(022), 0U);
}

TEST_F(Agent, WithoutATemporaryDirectoryReturnsFive) {
    const test::debugging on;
    unsetenv("TMPDIR");
    EXPECT_EQ(init(), 5U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib create tmp dir error."});
    EXPECT_EQ(umask(022), 0U);
    setenv("TMPDIR", daemon.directory().path().c_str(), 1);
    start();
}

TEST_F(Agent, ReturnsTheErrorOfADirectoryThatCannotBeMade) {
    const test::debugging on;
    setenv("TMPDIR", "/dev/null", 1);
    EXPECT_EQ(init(), 20U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{identity() + " mkdir failed:Not a directory!"});
    EXPECT_EQ(state(), 1U);
    EXPECT_TRUE(test::added_tasks("scc-connect").empty());
}

TEST_F(Agent, SettingTheConnectCallbackReturnsZero) {
    EXPECT_EQ(scc_agent_set_connect_callback(on_connection), 0U);
    EXPECT_EQ(scc_agent_set_connect_callback(nullptr), 0U);
}

TEST_F(Agent, CallsTheConnectCallbackAfterEachRegistration) {
    scc_agent_set_connect_callback(on_connection);
    start();
    EXPECT_EQ(connections().wait(), 4);
    daemon.close_both();
    expect_reconnection();
    EXPECT_EQ(connections().wait(), 4);
    scc_agent_set_connect_callback(nullptr);
    daemon.close_both();
    expect_reconnection();
    EXPECT_EQ(connections().size(), 0U);
}

// ---- reading

TEST_F(Agent, DeliversEachResultOnTheLoopsThreadAndReadsOn) {
    start();
    std::thread::id loop;
    in_loop([&] { loop = std::this_thread::get_id(); });
    for (std::uint32_t call = 1; call <= 3; ++call) {
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(5, 1, &call_id), 0U);
        EXPECT_EQ(call_id, call);
        EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(call).u32(5).u32(1)));
        daemon.send_result(call, 2005);
        const auto got = answers().wait();
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(got->result, 2005U);
        EXPECT_EQ(got->call_id, call);
        EXPECT_EQ(got->thread, loop);
    }
    settle();
    EXPECT_EQ(test::added_tasks("scc-read").size(), 4U);
}

TEST_F(Agent, StopsReadingAfterAReceiveThatTimedOut) {
    start();
    const test::debugging on;
    const timeval timeout{0, 10000};
    ASSERT_EQ(setsockopt(g_scc_client_cb.async_fd.load(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout),
              0);
    test::forget_added_tasks();
    daemon.send(side::async, wire().u32(20));
    ASSERT_TRUE(test::wait_for_log("scc msg recv error. rv=11, Resource temporarily unavailable"));
    settle();
    EXPECT_FALSE(scc::is_pending(scc::task_read));
    EXPECT_TRUE(test::added_tasks("scc-read").empty());
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
    EXPECT_EQ(state(), 4U);
}

TEST_F(Agent, StopsReadingAfterAMalformedMessageUntilSomethingElseReconnects) {
    start();
    const test::debugging on;
    daemon.send(side::async, wire().u32(8).u8(1).u16(0).u8(0));
    ASSERT_TRUE(test::wait_for_log("scc msg recv error. rv=2007, msg format error"));
    settle();
    EXPECT_FALSE(scc::is_pending(scc::task_read));
    EXPECT_EQ(state(), 4U);
    daemon.close_side(side::sync);
    std::uint32_t count = 0;
    EXPECT_NE(scc_arp_check_user_count_get(1, &count), 0U);
    expect_reconnection();
    expect_working_requests();
    expect_answer(1);
}

TEST_F(Agent, DropsAMessageWhoseItemsDoNotFitAndReadsOn) {
    const bytes messages[] = {
        wire().u32(24).u8(1).u16(1).u8(0).u32(9).u16(0).u16(401).u32(1).u32(0),
        wire().u32(24).u8(1).u16(2).u8(0).u32(8).u16(0).u16(401).u32(1).u32(0),
        wire().u32(24).u8(1).u16(1).u8(0).u32(0xFFFFFFFF).u16(0).u16(401).u32(1).u32(0),
        wire().u32(12).u8(1).u16(1).u8(0).u32(0),
    };
    start();
    for (const bytes& message : messages) {
        const test::debugging on;
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
        daemon.send(side::async, message);
        expect_answer(call_id);
        EXPECT_TRUE(
            test::logged("msg format error,items exceed msg. len:" + std::to_string(message.size()) + "."));
        ASSERT_FALSE(::testing::Test::HasFailure());
    }
    EXPECT_EQ(state(), 4U);
    EXPECT_EQ(answers().size(), 0U);
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
}

TEST_F(Agent, StopsReadingAfterAHeaderAlone) {
    start();
    const test::debugging on;
    daemon.send(side::async, wire().u32(8).u8(1).u16(1).u8(0));
    ASSERT_TRUE(test::wait_for_log("scc msg recv error. rv=2007, msg format error"));
    settle();
    EXPECT_FALSE(scc::is_pending(scc::task_read));
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
    EXPECT_EQ(state(), 4U);
}

// ---- the end

TEST_F(Agent, FinishedWhenNotRegisteredSaysSoAndReturnsZero) {
    const test::debugging on;
    EXPECT_EQ(scc_agent_finish(), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"(pid:0) already unregistered or not registered!"});
}

TEST_F(Agent, FinishedInAnyOtherStateSendsNothingAndChangesNothing) {
    start();
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    for (const std::uint32_t other : {1U, 2U, 3U, 5U}) {
        SCOPED_TRACE(other);
        const test::debugging on;
        g_scc_client_cb.state.store(other);
        auto result = std::async(std::launch::async, [this] { return on_loop(scc_agent_finish); });
        if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            daemon.close_both();  // it waits for an answer
            FAIL() << "it unregisters";
        }
        EXPECT_EQ(result.get(), 0U);
        EXPECT_TRUE(
            test::logged("(pid:" + std::to_string(getpid()) + ") already unregistered or not registered!"));
        EXPECT_TRUE(daemon.stays_silent(side::sync, 0));
        EXPECT_EQ(state(), other);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(g_scc_client_cb.option.load(), 1U);
        EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 1U);
        EXPECT_EQ(g_scc_client_cb.handlers.server_status, test::on_status);
        EXPECT_TRUE(scc::is_pending(scc::task_read));
        EXPECT_TRUE(_scc_lib_client_is_connected());
    }
    g_scc_client_cb.state.store(4);
    expect_answer(1);
    expect_working_requests();
}

TEST_F(Agent, FinishesWithAllItsTasksCancelled) {
    start();
    const test::debugging on;
    auto result = std::async(std::launch::async, [this] {
        return on_loop([] {
            test::set_timer_seconds(1000);
            EXPECT_EQ(_scc_lib_thread_event(1, nullptr, -1), 0);
            EXPECT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);
            return scc_agent_finish();
        });
    });
    EXPECT_EQ(daemon.answer_unregistration(), bytes(wire().u32(7)));
    EXPECT_EQ(result.get(), 0U);
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    for (const auto kind : {scc::task_connect, scc::task_reconnect, scc::task_read, scc::task_write}) {
        EXPECT_FALSE(scc::is_pending(kind)) << kind;
    }
    EXPECT_TRUE(test::logged(identity() + " unregister to sccd success!"));
    EXPECT_EQ(state(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.option.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Agent, StaysRegisteredWhenTheDaemonRefusesItsEnd) {
    start();
    const test::debugging on;
    EXPECT_EQ(finish(5), 2001U);
    EXPECT_TRUE(test::logged(identity() + "unregistered error!"));
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_EQ(state(), 4U);
    expect_working_requests();
    expect_answer(1);
    EXPECT_EQ(finish(), 0U);
}

TEST_F(Agent, StartsAgainAfterItsEndWithFreshCallIds) {
    start();
    expect_working_requests();
    EXPECT_EQ(finish(), 0U);
    start();
    std::uint32_t call_id = 0;
    ASSERT_EQ(scc_addr_learning(1, 1, &call_id), 0U);
    EXPECT_EQ(call_id, 1U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    expect_answer(1);
}

TEST_F(Agent, MayBeFinishedByAResultHandler) {
    info.handlers.addr_learning = finish_on_answer;
    start();
    expect_working_requests();
    test::forget_added_tasks();
    // The second result is in the same message: by then its handler has been cleared.
    ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    daemon.send_items(side::async, {test::item_bytes(401, wire().u32(1).u32(0)),
                                    test::item_bytes(401, wire().u32(2).u32(0))});
    daemon.answer_unregistration();
    const auto got = answers().wait();
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->call_id, 1U);
    EXPECT_EQ(finish_result.load(), 0U);
    settle();
    EXPECT_EQ(answers().size(), 0U);
    EXPECT_EQ(state(), 1U);
    EXPECT_TRUE(test::added_tasks("scc-read").empty());
}

TEST_F(Agent, FinishedWithADeadDaemonIsUnregisteredAllTheSame) {
    start();
    const test::debugging on;
    in_loop([this] {
        daemon.close_both();
        EXPECT_EQ(scc_agent_finish(), 0U);
        EXPECT_EQ(state(), 1U);
    });
    EXPECT_TRUE(test::logged(identity() + " unregister to sccd success!"));
    EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
    start();
    expect_working_requests();
}

TEST_F(Agent, AStartThatFailsKeepsNoCopyOfItsRecord) {
    unsetenv("TMPDIR");
    const std::size_t before =
        mallinfo2().uordblks;  // 0 under the address sanitizer, which finds leaks itself
    for (int start = 0; start < 2000; ++start) {
        EXPECT_EQ(scc_agent_init(&info, master), 5U);
    }
    EXPECT_LE(mallinfo2().uordblks, before + (std::size_t{128} << 10U));
}

}  // namespace
