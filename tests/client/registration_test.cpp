// The start and end of an application, as the daemon sees them.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/channel_support.h"
#include "client/connection.h"
#include "client/diagnostics.h"
#include "support/aside.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

test::event_queue<std::uint32_t>& results() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

class Registration : public test::runtime_test {
  protected:
    // The test's own thread plays the daemon while another one unregisters.
    std::thread unregister_aside() {
        return std::thread([] { results().push(scc_svr_unreg()); });
    }

    std::string who() const { return "(app id:7, pid:" + test::own_pid() + ")"; }

    // The registration still works: a request goes out.
    void expect_registered() {
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
        EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
        EXPECT_EQ(daemon.read_item(side::async).type, 123);
    }
};

TEST_F(Registration, SendsAppIdPidOptionAndSocketFlagOnBothSockets) {
    info.app_id = 7;
    info.option = 3;
    info.handlers.server_status = test::on_status;
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    const auto [sync, async] = daemon.accept_registration();
    const auto pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(sync, bytes(wire().u32(7).u32(pid).u8(3).u8(1).zeros(2)));
    EXPECT_EQ(async, bytes(wire().u32(7).u32(pid).u8(3).u8(0).zeros(2)));
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Registration, RefusesANullRecordAndAppIdsOutsideOneToNineteen) {
    const test::debugging on;
    EXPECT_EQ(scc_svr_reg(nullptr), 22U);
    EXPECT_TRUE(test::logged("input param is null!."));
    for (const std::uint32_t app_id : {0U, 20U, 0xFFFFFFFFU}) {
        info.app_id = app_id;
        EXPECT_EQ(scc_svr_reg(&info), 22U);
    }
    EXPECT_TRUE(test::logged("app id is invalid in register param!"));
}

TEST_F(Registration, UnregistersWithTheAppIdAndStopsAllHandlers) {
    start();
    std::thread answering([this] { EXPECT_EQ(daemon.answer_unregistration(), bytes(wire().u32(7))); });
    EXPECT_EQ(scc_svr_unreg(), 0U);
    answering.join();
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, ComesBackAfterALostDaemonWithOneStatusZeroAndOneStatusOne) {
    start();
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, SurvivesARefusedUnregistration) {
    start();
    std::thread answering([this] { daemon.answer_unregistration(5); });
    EXPECT_EQ(scc_svr_unreg(), 2001U);
    answering.join();
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    EXPECT_EQ(daemon.read_item(side::async).type, 123);
    stop();
}

TEST_F(Registration, AppIds1And19AreAccepted) {
    for (const std::uint32_t app_id : {1U, 19U}) {
        info.app_id = app_id;
        info.handlers.server_status = test::on_status;
        ASSERT_EQ(scc_svr_reg(&info), 0U);
        EXPECT_EQ(test::u32_at(daemon.accept_registration().first, 0), app_id);
        EXPECT_EQ(test::statuses().wait(), 1U);
        stop();
    }
}

TEST_F(Registration, ASecondRegistrationIsLoggedAndChangesNothing) {
    start();
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    const test::debugging on;
    scc_reg_info other{};
    other.app_id = 9;
    EXPECT_EQ(scc_svr_reg(&other), 0U);
    EXPECT_TRUE(test::logged("(app id:9, pid:" + test::own_pid() + ") already registered!"));
    EXPECT_EQ(test::library_threads(), 2U);
    expect_registered();
}

TEST_F(Registration, ASecondRegistrationBeforeTheFirstIsThroughChangesNothing) {
    info.app_id = 7;
    info.handlers.server_status = test::on_status;
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_both();
    const test::debugging on;
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_TRUE(test::logged(who() + " already registered!"));
    daemon.answer_registration(side::sync);
    daemon.answer_registration(side::async);
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_registered();
}

TEST_F(Registration, AConnectedClientIsRegisteredAlreadyWhateverItsState) {
    start();
    _scc_client_state_set(1);
    const test::debugging on;
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{who() + " already registered!"});
    _scc_client_state_set(4);
    expect_registered();
}

TEST_F(Registration, UnregisteringLeavesNothing) {
    info.handlers.addr_learning = [](std::uint32_t, std::uint32_t, std::uint32_t, std::uint8_t) {};
    start(3);
    EXPECT_TRUE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    const test::debugging on;
    stop();
    EXPECT_TRUE(test::logged(who() + " unregister to sccd success!"));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.option.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_EQ(scc::load_handler(g_scc_client_cb.handlers.addr_learning), nullptr);
    EXPECT_EQ(scc::load_handler(g_scc_client_cb.handlers.server_status), nullptr);
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd2_")));
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, UnregisteringInAnyOtherStateDoesNothing) {
    const test::debugging on;
    EXPECT_EQ(scc_svr_unreg(), 0U);
    EXPECT_TRUE(test::logged("(pid:0) already unregistered or not registered!"));
    start();
    for (const std::uint32_t state : {1U, 2U, 3U, 5U}) {
        test::clear_log();
        _scc_client_state_set(state);
        EXPECT_EQ(scc_svr_unreg(), 0U);
        EXPECT_TRUE(test::logged("(pid:" + test::own_pid() + ") already unregistered or not registered!"));
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    }
    _scc_client_state_set(4);
    test::expect_nothing_was_sent(daemon, side::sync);
    expect_registered();
}

TEST_F(Registration, UnregisteringWhileTheDaemonIsAwayDoesNotEndTheAttempts) {
    start();
    const test::debugging on;
    daemon.stop_listening();
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("connect to sccd failed!!!"));
    EXPECT_EQ(scc_svr_unreg(), 0U);
    daemon.listen();
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Registration, ARefusalIs2001WhateverNumberTheDaemonSent) {
    start();
    const test::debugging on;
    for (const std::uint32_t number : {1U, 2003U, 0x80000000U, 0xFFFFFFFFU}) {
        std::thread aside = unregister_aside();
        daemon.answer_unregistration(number);
        EXPECT_EQ(results().wait(), 2001U);
        aside.join();
    }
    EXPECT_TRUE(test::logged(who() + "unreg action rejected by sccd!"));
    EXPECT_TRUE(test::logged(who() + "unregistered error!"));
    expect_registered();
    stop();
}

TEST_F(Registration, OnlyTheResultInTheFirstItemOfAnUnregistrationsReplyIsLookedAt) {
    start();
    std::thread aside = unregister_aside();
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    daemon.send_items(side::sync, {test::item_bytes(999, wire().u32(0xFFFFFFFF).u32(0), 0xABCD),
                                   test::item_bytes(302, wire().u32(0).u32(1))});
    EXPECT_EQ(results().wait(), 0U);
    aside.join();
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
}

TEST_F(Registration, AReplyThatBreaksOffCountsAsConsent) {
    const bytes reply = wire().u32(24).u8(1).u16(1).u8(0).u32(8).u16(0).u16(302).u32(0).u32(0);
    for (const std::size_t cut : {0U, 1U, 8U, 23U}) {
        start();
        std::thread aside = unregister_aside();
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        daemon.send(side::sync, test::slice(reply, 0, cut));
        daemon.close_side(side::sync);
        EXPECT_EQ(results().wait(), 0U);
        aside.join();
        EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
        EXPECT_TRUE(daemon.wait_for_close(side::async));
        daemon.close_both();
    }
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(Registration, AMalformedReplyIs2007AndTheRegistrationStays) {
    const bytes replies[] = {
        wire().u32(24).u8(1).u16(0).u8(0),
        wire().u32(8).u8(1).u16(1).u8(0),
        wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(302).u32(0),
        wire().u32(20).u8(1).u16(1).u8(0).u32(8).u16(0).u16(302).u32(0),
    };
    start();
    for (const bytes& reply : replies) {
        std::thread aside = unregister_aside();
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        daemon.send(side::sync, reply);
        EXPECT_EQ(results().wait(), 2007U);
        aside.join();
        expect_registered();
    }
    stop();
}

TEST_F(Registration, ALostDaemonDuringUnregistrationEndsTheRegistration) {
    start();
    std::thread aside = unregister_aside();
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    daemon.close_both();
    EXPECT_EQ(results().wait(), 0U);
    aside.join();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::statuses().size(), 0U);
    start();
    expect_registered();
}

TEST_F(Registration, ARefusalWhileTheAsyncSocketIsLostLeavesTheReceiveThreadWorking) {
    start();
    const pid_t receiver = test::receive_thread();
    const test::debugging on;
    std::thread aside = unregister_aside();
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    daemon.close_side(side::async);
    // The receive thread has seen the loss and waits for the outcome.
    EXPECT_TRUE(test::wait_for_log("recv msg hdr error! syn:0 errno:32."));
    EXPECT_TRUE(test::wait_until_it_sleeps_in(receiver, test::waiting_for_a_lock));
    daemon.send_item(side::sync, 302, wire().u32(0).u32(1));
    EXPECT_EQ(results().wait(), 2001U);
    aside.join();
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    expect_registered();
}

// ---- a host's signal handler ends the wait for the reply -------------------------------------------

using unregistration = test::aside<std::uint32_t>;

bytes unregistration_reply(std::uint32_t result) {
    return test::message_bytes({test::item_bytes(302, wire().u32(0).u32(result))});
}

class InterruptedUnregistration : public Registration {
  protected:
    // Waits for the call; one that does not return fails the test and is released.
    std::uint32_t finished(unregistration& running) {
        if (!running.returns()) {
            ADD_FAILURE() << "the call does not return";
            daemon.stop_listening();
            daemon.close_both();
        }
        return running.get();
    }

    // A signal ends the unregistration when these bytes of its reply have come: it stays registered.
    void expect_interrupted(const bytes& sent) {
        test::handle_interruptions();
        unregistration running(scc_svr_unreg);
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        daemon.send(side::sync, sent);
        ASSERT_TRUE(test::all_taken(daemon.fd(side::sync)));
        ASSERT_TRUE(running.waits_in(test::waiting_for_bytes));
        running.interrupt();
        EXPECT_EQ(finished(running), 4U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
        EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    }

    // The result of another unregistration once the daemon has read it and sent these bytes.
    std::uint32_t unregistered_after(const bytes& sent) {
        unregistration running(scc_svr_unreg);
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        daemon.send(side::sync, sent);
        return finished(running);
    }

    void expect_own_count_after(const bytes& sent) {
        std::uint32_t count = 0;
        unregistration running([&count] { return scc_arp_check_user_count_get(1, &count); });
        EXPECT_EQ(daemon.read_item(side::sync).type, 304);
        daemon.send(
            side::sync,
            wire().add(sent).add(test::message_bytes({test::item_bytes(411, wire().u32(0).u32(0).u32(31))})));
        EXPECT_EQ(finished(running), 0U);
        EXPECT_EQ(count, 31U);
    }
};

TEST_F(InterruptedUnregistration, AtAnyByteLeavesAQueryAndTheNextTheirOwnReplies) {
    start();
    const bytes late = unregistration_reply(1);
    for (std::size_t length = 0; length < late.size(); ++length) {
        SCOPED_TRACE(length);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(test::slice(late, 0, length)));
        expect_own_count_after(test::slice(late, length, late.size() - length));
        if (HasFailure()) {
            return;
        }
    }
    expect_registered();
    EXPECT_EQ(unregistered_after(unregistration_reply(0)), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(InterruptedUnregistration, IsRepeatedWithItsOwnReply) {
    start();
    for (const std::size_t length : {std::size_t{0}, std::size_t{5}, std::size_t{23}}) {
        SCOPED_TRACE(length);
        const bytes consent = unregistration_reply(0);
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(test::slice(consent, 0, length)));
        EXPECT_EQ(unregistered_after(wire()
                                         .add(test::slice(consent, length, consent.size() - length))
                                         .add(unregistration_reply(1))),
                  2001U);
        if (HasFailure()) {
            return;
        }
        expect_registered();
    }
    ASSERT_NO_FATAL_FAILURE(expect_interrupted({}));
    EXPECT_EQ(unregistered_after(wire().add(unregistration_reply(1)).add(unregistration_reply(0))), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
}

TEST_F(InterruptedUnregistration, OwesNothingToTheNextRegistration) {
    start();
    ASSERT_NO_FATAL_FAILURE(expect_interrupted({}));
    EXPECT_EQ(unregistered_after(wire().add(unregistration_reply(0)).add(unregistration_reply(0))), 0U);
    start();
    expect_own_count_after({});
}

TEST_F(Registration, UnregisteringAndRegisteringAtOnceLeavesOneReceiveThread) {
    start();
    for (int round = 0; round < 30; ++round) {
        stop();
        start();
    }
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    EXPECT_EQ(test::statuses().size(), 0U);
    reconnect();
    expect_registered();
    EXPECT_EQ(test::library_threads(), 2U);
}

// The host's own socket pair in place of descriptor 0, which would show a message, a close and a shutdown.
class DescriptorZero : public Registration {
  protected:
    DescriptorZero() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        EXPECT_EQ(dup2(ends[0], 0), 0);
        close(ends[0]);
        other_ = ends[1];
    }
    ~DescriptorZero() override { close(other_); }

    void expect_left_alone() const {
        char byte = 0;
        EXPECT_EQ(recv(other_, &byte, 1, MSG_DONTWAIT), -1) << "a message, or the end of it";
        EXPECT_EQ(send(0, "x", 1, MSG_NOSIGNAL), 1);
        EXPECT_EQ(recv(other_, &byte, 1, 0), 1);
        EXPECT_EQ(send(other_, "y", 1, MSG_NOSIGNAL), 1);
        EXPECT_EQ(recv(0, &byte, 1, 0), 1);
    }

  private:
    int other_ = -1;
};

TEST_F(DescriptorZero, AsTheSyncSocketIsNeitherUnregisteredNorClosed) {
    start();
    const int real_sync = g_scc_client_cb.sync_fd.exchange(0);
    EXPECT_EQ(scc_svr_unreg(), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), 0);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    expect_left_alone();
    const bytes mark = test::message_bytes({test::item_bytes(60000, {})});
    EXPECT_EQ(send(real_sync, mark.data(), mark.size(), MSG_NOSIGNAL), static_cast<ssize_t>(mark.size()));
    EXPECT_EQ(daemon.read_item(side::sync).type, 60000) << "something was sent before";
    g_scc_client_cb.sync_fd = -1;
    close(real_sync);
}

TEST_F(DescriptorZero, AsTheAsyncSocketIsNotClosedEither) {
    EXPECT_FALSE(_scc_lib_client_is_connected());
    g_scc_client_cb.sync_fd = 0;
    EXPECT_FALSE(_scc_lib_client_is_connected());
    g_scc_client_cb.async_fd = 0;
    EXPECT_TRUE(_scc_lib_client_is_connected());
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), 0);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), 0);
    EXPECT_EQ(scc_lib_rereg.load(), 1U);
    expect_left_alone();
}

TEST_F(DescriptorZero, OfBothSocketsIsAConnectionThatIsRegisteredAlready) {
    const test::debugging on;
    info.app_id = 7;
    g_scc_client_cb.sync_fd = 0;
    g_scc_client_cb.async_fd = 0;
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_TRUE(test::logged(who() + " already registered!"));
    EXPECT_EQ(test::library_threads(), 0U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    expect_left_alone();
}

TEST_F(Registration, BeginsWithNothingCountedBeforeTheDaemonAnswers) {
    for (std::uint32_t index = 0; index < 13; ++index) {
        g_scclib_stat[index] = {1, 2, 3, 4, 5};
    }
    info.app_id = 7;
    ASSERT_EQ(scc_svr_reg(&info), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    for (std::uint32_t index = 0; index < 13; ++index) {
        EXPECT_EQ(test::record_bytes(scc::read_statistics(index)), bytes(20)) << index;
    }
}

TEST_F(Registration, DescriptorsAbove1024Work) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 2048) {
        GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors are allowed here";
    }
    limit.rlim_cur = 2048;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<int> taken;
    while (taken.empty() || taken.back() < 1100) {
        taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(taken.back(), 0);
    }
    info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t, std::uint32_t, std::uint8_t) {
        results().push(result);
    };
    start();
    EXPECT_GT(g_scc_client_cb.sync_fd.load(), 1024);
    EXPECT_GT(g_scc_client_cb.async_fd.load(), 1024);
    expect_registered();
    daemon.send_result(1, 2019);
    EXPECT_EQ(results().wait(), 2019U);
    stop();
    for (const int fd : taken) {
        close(fd);
    }
}

}  // namespace
