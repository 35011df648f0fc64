// What a registration by the event loop takes over, leaves and returns, and the order of its steps.
#include <errno.h>
#include <unistd.h>

#include <barrier>
#include <chrono>
#include <cstring>
#include <fstream>

#include "client/connection.h"
#include "client/diagnostics.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "support/loop_acts.h"
#include "support/loop_application.h"
#include "support/one_at_a_time.h"
#include "support/waiting.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

// What the application observed when it was called.
struct moment {
    std::string call;
    std::uint32_t state;
    bool reads;
    std::uint32_t calls_counted;

    bool operator==(const moment&) const = default;
};

std::ostream& operator<<(std::ostream& out, const moment& seen) {
    return out << seen.call << " in state " << seen.state << (seen.reads ? ", reading" : "") << ", counted "
               << seen.calls_counted;
}

test::event_queue<moment>& moments() {
    static auto* queue = new test::event_queue<moment>;
    return *queue;
}

void note(const std::string& call) {
    moments().push(
        {call, g_scc_client_cb.state.load(), scc::is_pending(scc::task_read), scc::read_statistics(3).calls});
}

void note_status(std::uint32_t status) {
    note(status == 1 ? "status 1" : "status 0");
    test::on_status(status);
}

void note_connection() {
    note("callback");
}

class AgentRegistration : public test::loop_application {
  protected:
    AgentRegistration() { info.handlers.server_status = note_status; }

    static std::string identity() { return "(app id:7, pid:" + std::to_string(getpid()) + ")"; }

    // Neither an application's nor the service's start in thread mode begins.
    void expect_no_start_in_thread_mode() {
        const std::size_t threads = test::process_threads("Name").size();
        const test::debugging on;
        const scc_reg_info application = test::second_registration();
        const scc_ss_reg_info service{};
        EXPECT_EQ(scc_svr_reg(&application), 0U);
        EXPECT_EQ(scc_ss_reg(&service), 0U);
        const std::string pid = std::to_string(getpid());
        EXPECT_EQ(test::log_texts(),
                  (std::vector<std::string>{"(app id:9, pid:" + pid + ") already registered!",
                                            "(app id:16, pid:" + pid + ") already registered!"}));
        EXPECT_EQ(test::process_threads("Name").size(), threads);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 0U);
    }

    // There is one registration, once on each socket, and only the loop reads.
    void expect_one_registration() {
        ASSERT_EQ(scc_warterline_notify(1), 0U);
        ASSERT_EQ(daemon.read_item(side::sync).type, 220);
        settle();
        ASSERT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        ASSERT_EQ(daemon.read_item(side::async).type, 123);
        EXPECT_EQ(test::statuses().size(), 0U);
    }

    // A connect task runs now; test::task_results has what it returned.
    void connect_again() {
        while (test::task_results("scc-connect").size() > 0) {
            (void)test::task_results("scc-connect").wait();
        }
        in_loop([this] {
            auto* record = static_cast<scc_reg_info*>(std::calloc(1, sizeof info));
            *record = info;
            EXPECT_EQ(_scc_lib_thread_event(0, record, -1), 0);
        });
    }
};

TEST_F(AgentRegistration, TakesTheIdentityOverAndReadsTheSwitchFile) {
    // The name that the kernel shows is the memory of the first argument.
    ASSERT_GT(std::strlen(program_invocation_name), 8U);
    std::strcpy(program_invocation_name, "./loopd");
    std::ofstream(daemon.directory().runtime() + "/scclib_dbg.txt") << "loopd   0\n./LOOPD   1\n";
    info.option = 2;
    start();
    EXPECT_EQ(scc_lib_debug.load(), 1);
    scc_lib_debug.store(0);
    EXPECT_STREQ(g_scc_client_cb.process_name, "./loopd");
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_EQ(g_scc_client_cb.pid.load(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(g_scc_client_cb.option.load(), 2U);
    EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 0U);
}

TEST_F(AgentRegistration, ReadsBeforeItTellsOfTheFirstAndTellsBeforeItReadsAfterALoss) {
    scc_agent_set_connect_callback(note_connection);
    start();
    EXPECT_EQ(moments().wait(), (moment{"status 1", 4, true, 0}));
    EXPECT_EQ(moments().wait(), (moment{"callback", 4, true, 0}));
    in_loop([] { g_scclib_stat[3] = {6, 5, 4, 3, 2}; });
    daemon.close_both();
    expect_reconnection();
    EXPECT_EQ(moments().wait(), (moment{"status 0", 1, false, 6}));
    EXPECT_EQ(moments().wait(), (moment{"status 1", 4, false, 0})) << "the statistics begin anew";
    EXPECT_EQ(moments().wait(), (moment{"callback", 4, true, 0}));
    EXPECT_EQ(moments().size(), 0U);
}

TEST_F(AgentRegistration, IsInStateRegisteringWhileItWaitsForEitherReply) {
    const auto expect_registering = [this] {
        daemon.accept_both();
        for (const side where : {side::sync, side::async}) {
            EXPECT_EQ(daemon.read_item(where).type, 301);
            EXPECT_EQ(state(), 3U);
            daemon.send_item(where, 301, wire().u32(0).u32(0).u32(0));
        }
    };
    EXPECT_EQ(state(), 1U);
    ASSERT_EQ(init(), 0U);
    expect_registering();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(state(), 4U);
    settle();
    daemon.close_both();
    expect_registering();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(state(), 4U);
    settle();
}

TEST_F(AgentRegistration, BeginsWithNothingCounted) {
    g_scclib_stat[3] = {6, 5, 4, 3, 2};
    start();
    EXPECT_EQ(moments().wait(), (moment{"status 1", 4, true, 0}));
}

TEST_F(AgentRegistration, InAnyStateButIdleOrWithAConnectionIsTakenForStarted) {
    const std::vector<std::string> refusal{identity() + " already registered!"};
    const auto expect_started = [&] {
        const test::debugging on;
        test::forget_added_tasks();
        EXPECT_EQ(scc_agent_init(&info, master), 0U);
        EXPECT_EQ(test::log_texts(), refusal);
        EXPECT_TRUE(test::added_tasks("scc-connect").empty());
    };
    in_loop([&] {
        for (const std::uint32_t state : {2U, 3U, 4U, 5U}) {
            _scc_client_state_set(state);
            expect_started();
        }
        _scc_client_state_set(1);
    });
    start();
    in_loop([&] {
        _scc_client_state_set(1);
        expect_started();
        _scc_client_state_set(4);
    });
}

TEST_F(AgentRegistration, KeepsPosition42AndNeverInstallsPosition67) {
    info.handlers.filter_counter_reset = [](std::uint32_t, std::uint32_t, const scc_acl_key*) {};
    info.handlers.water_line = [](std::uint8_t) {};
    start();
    EXPECT_EQ(g_scc_client_cb.handlers.filter_counter_reset, info.handlers.filter_counter_reset);
    EXPECT_EQ(g_scc_client_cb.handlers.water_line, nullptr);
    EXPECT_EQ(finish(), 0U);
    EXPECT_EQ(g_scc_client_cb.handlers.filter_counter_reset, info.handlers.filter_counter_reset);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
}

TEST_F(AgentRegistration, ReturnsTheErrorOfAConnectionThatFailed) {
    start();
    EXPECT_EQ(finish(), 0U);
    in_loop([this] {
        test::set_timer_seconds(1000);
        daemon.stop_listening();
    });
    ASSERT_EQ(init(), 0U);
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    test::forget_added_tasks();
    connect_again();
    EXPECT_EQ(test::task_results("scc-connect").wait(), 2);  // the daemon's socket file has gone
    settle();
    EXPECT_EQ(state(), 1U);
    EXPECT_EQ(test::added_tasks("scc-reconnect").size(), 1U);
    daemon.listen();
    connect_again();
    daemon.accept_both();
    daemon.answer_registration(side::sync, 2002, 4711);
    EXPECT_EQ(test::task_results("scc-connect").wait(), 2002);
    settle();
    EXPECT_EQ(state(), 1U);
    EXPECT_TRUE(scc::is_pending(scc::task_reconnect));
}

TEST_F(AgentRegistration, CancelsWhatIsPendingWhenAReconnectionFails) {
    start();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    in_loop([&] {
        test::set_timer_seconds(1000);
        scc::cancel_all_tasks();
        daemon.stop_listening();
        daemon.close_both();
        (void)_scc_lib_client_close();
        _scc_client_state_set(1);
        EXPECT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);
        EXPECT_EQ(_scc_lib_thread_event(2, nullptr, ends[0]), 0);
        EXPECT_EQ(_scc_lib_agent_reconnect(nullptr), 2);
        EXPECT_FALSE(scc::is_pending(scc::task_connect));
        EXPECT_FALSE(scc::is_pending(scc::task_read));
        EXPECT_TRUE(scc::is_pending(scc::task_reconnect));
    });
    EXPECT_EQ(state(), 5U);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(AgentRegistration, StartedWhileItWaitsForTheTimerMakesNoSecondAttempt) {
    start();
    in_loop([this] {
        test::set_timer_seconds(1000);
        daemon.stop_listening();
        daemon.close_both();
    });
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    settle();
    in_loop([this] {
        EXPECT_TRUE(scc::is_pending(scc::task_reconnect));
        EXPECT_EQ(scc_agent_finish(), 0U) << "not registered: nothing to end";
        EXPECT_EQ(scc_agent_init(&info, master), 0U);
        EXPECT_TRUE(scc::is_pending(scc::task_connect));
        EXPECT_FALSE(scc::is_pending(scc::task_reconnect));
        daemon.listen();
    });
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    settle();
    EXPECT_EQ(state(), 4U);
}

TEST_F(AgentRegistration, OnItsWayToTheFirstConnectionIsTakenForStartedInThreadMode) {
    in_loop([this] {
        ASSERT_EQ(scc_agent_init(&info, master), 0U);
        expect_no_start_in_thread_mode();
    });
    ASSERT_FALSE(::testing::Test::HasFailure());
    EXPECT_EQ(test::u32_at(daemon.accept_registration().first, 0), 7U);
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_one_registration();
}

TEST_F(AgentRegistration, WaitingForItsTimerIsTakenForStartedInThreadMode) {
    start();
    test::keep_from_loop("scc-reconnect");
    in_loop([this] {
        daemon.stop_listening();
        daemon.close_both();
    });
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    settle();
    in_loop([this] { expect_no_start_in_thread_mode(); });
    ASSERT_FALSE(::testing::Test::HasFailure());
    test::keep_from_loop("");
    daemon.listen();
    auto reconnecting = std::async(std::launch::async, [this] {
        in_loop([] {
            const test::added_task timer = test::added_tasks("scc-reconnect").back();
            EXPECT_TRUE(test::run_kept(timer, timer.handle));
        });
    });
    expect_reconnection();
    reconnecting.get();
    expect_one_registration();
}

TEST_F(AgentRegistration, StartedAgainByAnotherThreadAtAnyMomentRegistersOnce) {
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        std::barrier both(2);
        std::thread beside([&] {
            both.arrive_and_wait();
            const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(round % 100 * 4);
            while (std::chrono::steady_clock::now() < moment) {
            }
            EXPECT_EQ(scc_agent_init(&info, master), 0U);
        });
        in_loop([&] {
            both.arrive_and_wait();
            EXPECT_EQ(scc_agent_init(&info, master), 0U);
        });
        daemon.accept_registration();
        beside.join();
        ASSERT_EQ(test::statuses().wait(), 1U);
        expect_one_registration();
        ASSERT_FALSE(::testing::Test::HasFailure());
        ASSERT_EQ(finish(), 0U);
    }
}

// ---- handlers of two registrations

class AgentBesideOldHandler : public test::loop_application {
  protected:
    AgentBesideOldHandler() {
        info.handlers.station_move = [](std::uint8_t) { test::old_handler(); };
    }

    void call_old_handler() { daemon.send_item(side::async, 210, wire().u32(1).u8(1)); }
};

TEST_F(AgentBesideOldHandler, LeavesTheNextReceiveThreadWaitingForIt) {
    start();
    call_old_handler();
    ASSERT_TRUE(test::entered().wait());
    std::thread beside([] {
        EXPECT_EQ(scc_agent_finish(), 0U);
        test::register_again();
    });
    daemon.answer_unregistration();
    beside.join();
    test::expect_second_waits_for_first(daemon);
}

TEST_F(AgentBesideOldHandler, ThatStartsAReceiveThreadLeavesItWaiting) {
    test::inside_old_handler() = [] {
        EXPECT_EQ(scc_agent_finish(), 0U);
        test::register_again();
    };
    start();
    call_old_handler();
    daemon.answer_unregistration();
    ASSERT_TRUE(test::entered().wait());
    test::expect_second_waits_for_first(daemon);
}

TEST_F(AgentBesideOldHandler, OfAReceiveThreadWaitsBeforeItsStatus) {
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    call_old_handler();
    ASSERT_TRUE(test::entered().wait());
    std::thread beside([this] {
        EXPECT_EQ(scc_svr_unreg(), 0U);
        const scc_reg_info second = test::second_registration();
        EXPECT_EQ(scc_agent_init(&second, master), 0U);
    });
    daemon.answer_unregistration();
    beside.join();
    test::expect_second_waits_for_first(daemon);
}

TEST_F(AgentRegistration, WithoutItsPathsEndsTheAttemptAndSchedulesNothing) {
    start();
    in_loop([] {
        unsetenv("TMPDIR");
        test::forget_added_tasks();
        EXPECT_EQ(_scc_lib_thread_event(0, std::calloc(1, 568), -1), 0);  // the leak sanitizer counts
    });
    settle();
    in_loop([] {
        EXPECT_FALSE(scc::is_pending(scc::task_connect));
        EXPECT_EQ(_scc_lib_agent_reconnect(nullptr), 1);
    });
    setenv("TMPDIR", daemon.directory().path().c_str(), 1);
    EXPECT_EQ(state(), 4U);
    EXPECT_EQ(test::added_tasks().size(),
              test::added_tasks("scc-connect").size() + test::added_tasks("test").size());
    EXPECT_EQ(test::statuses().size(), 0U);
    expect_working_requests();
}

// ---- ends in the middle -----------------------------------------------------------------------------

constinit std::atomic<int> g_callbacks{0};
constinit std::atomic<int> g_finish_at{0};

// Ends the registration at the chosen status 1.
void finish_at_status(std::uint32_t status) {
    test::on_status(status);
    if (status == 1 && --g_finish_at == 0) {
        EXPECT_EQ(scc_agent_finish(), 0U);
    }
}

TEST_F(AgentRegistration, ThatItsOwnStatusHandlerEndsHasNoConnectCallback) {
    info.handlers.server_status = finish_at_status;
    scc_agent_set_connect_callback([] { ++g_callbacks; });
    for (const int callbacks : {0, 1}) {
        g_finish_at = callbacks + 1;
        g_callbacks = 0;
        ASSERT_EQ(init(), 0U);
        daemon.accept_registration();
        ASSERT_EQ(test::statuses().wait(), 1U);
        if (callbacks == 1) {
            settle();
            daemon.close_both();
            ASSERT_EQ(test::statuses().wait(), 0U);
            daemon.accept_registration();
            ASSERT_EQ(test::statuses().wait(), 1U);
        }
        daemon.answer_unregistration();
        settle();
        EXPECT_EQ(g_callbacks, callbacks);
        EXPECT_EQ(state(), 1U);
    }
}

// It is ended while the last reply is in flight.
TEST_F(AgentRegistration, ThatEndsBeforeItIsConfirmedSetsNoStateAndReadsNothing) {
    for (const bool first : {true, false}) {
        if (first) {
            ASSERT_EQ(init(), 0U);
        } else {
            (void)_scc_lib_client_close();
            _scc_client_state_set(1);
            start();
            daemon.close_both();
            ASSERT_EQ(test::statuses().wait(), 0U);
        }
        daemon.accept_both();
        daemon.answer_registration(side::sync);
        EXPECT_EQ(daemon.read_item(side::async).type, 301);
        scc::end_generation();
        test::forget_added_tasks();
        daemon.send_item(side::async, 301, wire().u32(0).u32(0).u32(0));
        settle();
        EXPECT_EQ(state(), 3U);
        EXPECT_EQ(test::statuses().size(), 0U);
        EXPECT_TRUE(test::added_tasks("scc-read").empty());
        EXPECT_TRUE(test::added_tasks("scc-reconnect").empty());
    }
}

TEST_F(AgentRegistration, ThatEndsWhileAMessageArrivesDeliversNothingOfIt) {
    static test::event_queue<std::uint8_t> moves;
    info.handlers.station_move = [](std::uint8_t permitted) { moves.push(permitted); };
    start();
    const bytes message = test::message_bytes({test::item_bytes(210, wire().u32(1).u8(1))});
    test::task_results("scc-read");
    daemon.send(side::async, test::slice(message, 0, 10));
    EXPECT_TRUE(test::all_taken(daemon.fd(side::async)));
    scc::end_generation();
    daemon.send(side::async, test::slice(message, 10, message.size() - 10));
    EXPECT_EQ(test::task_results("scc-read").wait(), 0);
    EXPECT_EQ(moves.size(), 0U);
}

// Another thread closes it while its tasks are being cancelled.
TEST_F(AgentRegistration, WhoseConnectionIsClosedByAnotherMeanwhileIsNotEndedTwice) {
    start();
    in_loop([] {
        const std::uint32_t epoch = scc::connection_epoch();
        std::uint32_t after = 0;
        test::on_cancel([] { EXPECT_EQ(_scc_lib_client_close(), 0); });
        EXPECT_FALSE(scc::end_connection(epoch, after));
        EXPECT_EQ(after, 0U);
        EXPECT_EQ(scc::connection_epoch(), epoch + 1);
    });
    EXPECT_EQ(state(), 4U);
}

// ---- without a directory for the sockets nothing more is scheduled, so another start may follow

class AgentWithoutDirectory : public AgentRegistration {
  protected:
    // The task runs while the directory is missing; then a start in thread mode registers.
    void expect_given_up(const std::string& name) {
        const test::added_task task = test::added_tasks(name).back();
        in_loop([&] {
            unsetenv("TMPDIR");
            EXPECT_TRUE(test::run_kept(task, task.handle));
            setenv("TMPDIR", daemon.directory().path().c_str(), 1);
        });
        EXPECT_EQ(test::task_results(name).wait(), 1);
        daemon.listen();
        ASSERT_EQ(scc_svr_reg(&info), 0U);
        EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 1U);
        daemon.accept_registration();
        EXPECT_EQ(test::statuses().wait(), 1U);
        std::thread answering([this] { daemon.answer_unregistration(); });
        EXPECT_EQ(scc_svr_unreg(), 0U);
        answering.join();
    }
};

TEST_F(AgentWithoutDirectory, ForItsFirstConnectionIsGivenUp) {
    test::keep_from_loop("scc-connect");
    ASSERT_EQ(init(), 0U);
    expect_given_up("scc-connect");
}

TEST_F(AgentWithoutDirectory, ForItsNextConnectionIsGivenUp) {
    start();
    test::keep_from_loop("scc-reconnect");
    daemon.close_both();
    ASSERT_TRUE(test::wait_for_added("scc-reconnect", 1));
    expect_given_up("scc-reconnect");
}

}  // namespace
