// Connecting, registering and losing the daemon, as seen from both ends.
#include "client/connection.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>

#include "client/client_data.h"
#include "client/connection_support.h"
#include "client/descriptors.h"
#include "client/diagnostics.h"
#include "client/pending_calls.h"
#include "support/crowd.h"
#include "support/hidden_variable.h"

using test::bytes;
using test::Connection;
using test::lines_with;
using test::side;
using test::times_logged;
using test::wire;

namespace {

TEST_F(Connection, WaitsForADaemonThatComesLateWithoutAStatusZero) {
    const test::debugging on;
    daemon.stop_listening();
    begin();
    EXPECT_TRUE(test::wait_for_log("connect to sccd failed!!!"));
    EXPECT_TRUE(test::wait_for_log("reason:No such file or directory"));
    EXPECT_TRUE(test::eventually([&] { return g_scc_client_cb.state == 5U && has_no_socket_files(); }));
    daemon.listen();
    daemon.accept_registration();
    expect_first_status_is_one();
    EXPECT_TRUE(test::logged(who() + "connect to sccd success!"));
    EXPECT_TRUE(test::logged(who() + "register to sccd success!"));
    EXPECT_FALSE(test::logged("scc client start to try re-reg."));
}

TEST_F(Connection, TriesAgainAfterTwoSeconds) {
    begin();
    daemon.accept_both();
    const auto before = std::chrono::steady_clock::now();
    daemon.close_both();
    daemon.accept_registration();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1990));
    expect_first_status_is_one();
}

TEST_F(Connection, TriesAgainAfterTwoSecondsWhenItIsRefusedToo) {
    begin();
    daemon.accept_both();
    daemon.answer_registration(side::sync);
    const auto before = std::chrono::steady_clock::now();
    daemon.answer_registration(side::async, 2000);
    daemon.accept_both();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1990));
    const auto again = std::chrono::steady_clock::now();
    daemon.answer_registration(side::sync, 2000);
    daemon.accept_registration();
    EXPECT_GE(std::chrono::steady_clock::now() - again, std::chrono::milliseconds(1990));
    expect_first_status_is_one();
}

TEST_F(Connection, BothSocketsConnectBeforeEitherRegistersAndAsyncRegistersSecond) {
    begin();
    daemon.accept_both();
    const test::received_item first = daemon.read_item(side::sync);
    EXPECT_EQ(first.type, 301);
    // One thread does both, and it waits for this reply.
    EXPECT_TRUE(
        test::eventually([] { return test::sleeps_in(test::receive_thread(), test::waiting_for_bytes); }));
    EXPECT_TRUE(daemon.stays_silent(side::async, 0));
    daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    EXPECT_EQ(daemon.answer_registration(side::async),
              bytes(wire().u32(7).u32(static_cast<std::uint32_t>(getpid())).u8(0).u8(0).zeros(2)));
    expect_first_status_is_one();
}

TEST_F(Connection, TheStateIs2WhileConnecting) {
    const std::vector<int> others = test::crowd(daemon.directory());
    begin();
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.state == 2U; }));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    daemon.stop_listening();  // refuses pending connections
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.state == 5U; }));
    for (const int other : others) {
        close(other);
    }
    daemon.listen();
    daemon.accept_registration();
    expect_first_status_is_one();
}

// The runtime directory fits into an address, the socket files of this process do not.
TEST_F(Connection, ATooLongDirectoryIsNamedOnceAnAttempt) {
    const std::size_t prefix = std::strlen("/security/scc/.sccl_sd1_");
    std::string longest = daemon.directory().path() + "/";
    longest.append(107 - prefix - longest.size() - (test::own_pid().size() - 1), 'd');
    setenv("TMPDIR", longest.c_str(), 1);
    const test::debugging on;
    const auto before = std::chrono::steady_clock::now();
    begin();
    EXPECT_TRUE(test::eventually([] { return lines_with("too long") >= 1; }));
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_TRUE(test::eventually([] { return lines_with("too long") >= 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1990));
    EXPECT_EQ(test::statuses().size(), 0U);
}

// One character less, and they fit.
TEST_F(Connection, TheLongestDirectoryThatFitsIsUsed) {
    const std::size_t prefix = std::strlen("/security/scc/.sccl_sd1_");
    std::string longest = daemon.directory().path() + "/";
    longest.append(107 - prefix - longest.size() - test::own_pid().size(), 'd');
    setenv("TMPDIR", longest.c_str(), 1);
    const test::debugging on;
    begin();
    EXPECT_TRUE(test::wait_for_log("reason:No such file or directory"));
    EXPECT_EQ(lines_with("too long"), 0U);
    EXPECT_FALSE(test::logged("create socket error!!!"));
    EXPECT_FALSE(test::logged("bind socket error!!!"));
}

// ---- a host that starts without its standard descriptors ------------------------------------------

class ClosedDescriptors : public Connection, public ::testing::WithParamInterface<std::vector<int>> {
  protected:
    // What went wrong, as the exit status of a child: it may have no output.
    enum problem { none, not_registered, low_descriptor, loss_unnoticed, not_back, low_descriptor_again };

    static bool both_above_two() { return g_scc_client_cb.sync_fd > 2 && g_scc_client_cb.async_fd > 2; }

    problem live_without(const std::vector<int>& closed) {
        for (const int fd : closed) {
            close(fd);
        }
        info.app_id = 7;
        info.handlers.server_status = test::on_status;
        if (scc_svr_reg(&info) != 0) {
            return not_registered;
        }
        daemon.accept_registration();
        if (test::statuses().wait() != 1U) {
            return not_registered;
        }
        if (!both_above_two()) {
            return low_descriptor;
        }
        for (int losses = 0; losses < 2; ++losses) {
            daemon.close_both();
            if (test::statuses().wait() != 0U) {
                return loss_unnoticed;
            }
            daemon.accept_registration();
            if (test::statuses().wait() != 1U) {
                return not_back;
            }
            if (!both_above_two()) {
                return low_descriptor_again;
            }
        }
        return none;
    }
};

TEST_P(ClosedDescriptors, AreNotTakenForTheSockets) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(live_without(GetParam()));
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), none);
}

INSTANTIATE_TEST_SUITE_P(OfTheFirstThree, ClosedDescriptors,
                         ::testing::Values(std::vector{0}, std::vector{1}, std::vector{2}, std::vector{0, 1},
                                           std::vector{0, 1, 2}));

TEST_F(Connection, EachRegistrationBeginsWithFreshCallStatistics) {
    daemon.stop_listening();
    begin();
    for (std::uint32_t index = 0; index < 13; ++index) {
        _scc_lib_func_call_succ(index);
        _scc_lib_func_cb_fail(index);
    }
    daemon.listen();
    daemon.accept_registration();
    expect_first_status_is_one();
    for (std::uint32_t index = 0; index < 13; ++index) {
        EXPECT_EQ(test::record_bytes(scc::read_statistics(index)), bytes(20)) << index;
    }
    _scc_lib_func_call_succ(4);
    reconnect();
    EXPECT_EQ(test::record_bytes(scc::read_statistics(4)), bytes(20));
}

TEST_F(Connection, AnOutageIsOneStatusZeroHoweverManyAttemptsItTakes) {
    start();
    const test::debugging on;
    daemon.stop_listening();
    daemon.close_both();
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::eventually([] { return times_logged("connect to sccd failed!!!") >= 2; }));
    daemon.listen();
    daemon.accept_both();
    daemon.answer_registration(side::sync, 2000);
    EXPECT_TRUE(closes_silently(side::async));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
    EXPECT_EQ(times_logged("scc client start to try re-reg."), 1U);
}

TEST_F(Connection, OneLostSocketIsTheWholeConnectionLost) {
    start();
    daemon.close_side(side::async);
    EXPECT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(closes_silently(side::sync));
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Connection, ARequestOnALostSyncSocketBringsTheConnectionBack) {
    start();
    daemon.close_side(side::sync);
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(test::statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::statuses().wait(), 1U);
}

TEST_F(Connection, StaleSocketFilesDoNotCostAnAttempt) {
    const test::debugging on;
    for (const char* name : {".sccl_sd1_", ".sccl_sd2_"}) {
        const int fd = open(socket_file(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    start();
    EXPECT_FALSE(test::logged("bind socket error!!!"));
    EXPECT_TRUE(std::filesystem::is_socket(socket_file(".sccl_sd1_")));
    EXPECT_TRUE(std::filesystem::is_socket(socket_file(".sccl_sd2_")));
}

TEST_F(Connection, SocketsBearTheirFilesNamesTheSendTimeoutAndCloseOnExec) {
    start();
    const std::pair<int, const char*> both[] = {{g_scc_client_cb.sync_fd, ".sccl_sd1_"},
                                                {g_scc_client_cb.async_fd, ".sccl_sd2_"}};
    for (const auto& [fd, name] : both) {
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        sockaddr_un address{};
        socklen_t length = sizeof address;
        ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        EXPECT_EQ(std::string(address.sun_path), socket_file(name).string());
        timeval timeout{};
        length = sizeof timeout;
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length), 0);
        EXPECT_EQ(timeout.tv_sec, 3);
        EXPECT_EQ(timeout.tv_usec, 0);
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &length), 0);
        EXPECT_EQ(timeout.tv_sec, 0);
        EXPECT_EQ(timeout.tv_usec, 0);
    }
}

TEST_F(Connection, ConnectingReturnsTheNegativeErrorAndLogsTheReason) {
    const test::debugging on;
    g_scc_client_cb.pid = 42;
    const std::string good = daemon.directory().runtime() + "/own_";
    const std::string missing = daemon.directory().path() + "/missing/own_";
    EXPECT_EQ(_scc_lib_client_connect(missing.c_str()), -2);
    EXPECT_TRUE(test::logged("bind socket error!!!"));
    EXPECT_TRUE(test::logged("reason:No such file or directory"));
    const int fd = _scc_lib_client_connect(good.c_str());
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(std::filesystem::is_socket(good + "42"));
    close(fd);
    EXPECT_EQ(_scc_lib_client_connect(std::string(107, 'x').c_str()), -1);
    daemon.stop_listening();
    test::clear_log();
    EXPECT_EQ(_scc_lib_client_connect(good.c_str()), -2);
    EXPECT_TRUE(test::logged("connect to sccd failed!!!"));
    unsetenv("TMPDIR");
    EXPECT_EQ(_scc_lib_client_connect(good.c_str()), -1);
}

TEST_F(Connection, AFileWithoutAListenerIsAnErrorOfItsOwn) {
    const test::debugging on;
    g_scc_client_cb.pid = 42;
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const std::string daemon_file = daemon.directory().runtime() + "/.sccd_sd_";
    ASSERT_EQ(link(daemon_file.c_str(), (daemon_file + "kept").c_str()), 0);
    daemon.stop_listening();
    ASSERT_EQ(rename((daemon_file + "kept").c_str(), daemon_file.c_str()), 0);
    EXPECT_EQ(_scc_lib_client_connect(prefix.c_str()), -111);
    EXPECT_TRUE(test::logged("reason:Connection refused"));
}

TEST_F(Connection, TheThreadEndsWhenTheAppIdIsTakenAwayBeforeTheFirstRegistration) {
    const test::debugging on;
    daemon.stop_listening();
    begin();
    EXPECT_TRUE(test::wait_for_log("connect to sccd failed!!!"));
    g_scc_client_cb.app_id = 0;
    EXPECT_TRUE(test::wait_for_log("scc client not registered to sccd.exit thread."));
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_EQ(test::log_texts().back(), "scc client not registered to sccd.exit thread.");
    EXPECT_EQ(test::statuses().size(), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    daemon.listen();
    start();
}

// The variable is removed between the check and the attempt.
TEST_F(Connection, AnAttemptWithoutADirectoryFailsAndIsMadeAgain) {
    static test::hidden_variable* variable = nullptr;
    variable = new test::hidden_variable("TMPDIR");  // the environment keeps it
    status_handler = [](std::uint32_t status) {
        if (status == 0) {
            variable->hide();
        }
        test::on_status(status);
    };
    start();
    const test::debugging on;
    daemon.close_both();
    ASSERT_EQ(test::statuses().wait(), 0U);
    EXPECT_TRUE(test::wait_for_log("TMPDIR is unset, or too long for a socket path."));
    variable->show();
    daemon.accept_registration();
    expect_first_status_is_one();
}

TEST_F(Connection, WithoutADirectoryNothingIsTried) {
    (void)scc::begin_generation();
    g_scc_client_cb.app_id = 7;
    test::hidden_variable directory("TMPDIR");
    directory.hide();
    const test::debugging on;
    EXPECT_FALSE(_scc_lib_svr_rereg());
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"TMPDIR is unset, or too long for a socket path."});
}

// As the thread of a registration that has ended meanwhile.
TEST_F(Connection, AnEndedRegistrationConnectsNothingAndLeavesTheFlagOfTheNext) {
    const std::uint32_t earlier = scc::begin_generation();
    (void)scc::begin_generation();
    g_scc_client_cb.app_id = 7;
    scc_lib_rereg = 1;
    const test::debugging on;
    std::thread late([earlier] {
        scc::belong_to_generation(earlier);
        EXPECT_FALSE(_scc_lib_svr_rereg());
    });
    late.join();
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(scc_lib_rereg.load(), 1);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>());
}

// The state after a failed close.
TEST_F(Connection, ASocketThatIsConnectedAlreadyIsKept) {
    const std::uint32_t generation = scc::begin_generation();
    g_scc_client_cb.app_id = 7;
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    const std::string own = daemon.directory().runtime() + "/.sccl_sd1_";
    const int fd = _scc_lib_client_connect(own.c_str());
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(scc::install_descriptor(scc::channel::sync, fd, generation));
    std::thread registering([] { EXPECT_TRUE(_scc_lib_svr_rereg()); });
    daemon.accept_registration();
    registering.join();
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), fd);
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
}

TEST_F(Connection, AFailedConnectKeepsNoDescriptor) {
    g_scc_client_cb.pid = 42;
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const int next = dup(STDIN_FILENO);
    close(next);
    unsetenv("TMPDIR");
    EXPECT_EQ(_scc_lib_client_connect(prefix.c_str()), -1);
    EXPECT_EQ(dup(STDIN_FILENO), next);
}

TEST_F(Connection, ADescriptorThatIsMovedLeavesItsNumberFree) {
    g_scc_client_cb.pid = 42;
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    const int fd = _scc_lib_client_connect(prefix.c_str());
    const bool is_free = fcntl(STDIN_FILENO, F_GETFD) == -1;
    dup2(kept, STDIN_FILENO);
    EXPECT_GT(fd, 2);
    EXPECT_TRUE(is_free);
}

TEST_F(Connection, TheLastFreeDescriptorIsEnough) {
    g_scc_client_cb.pid = 42;
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const int next = dup(STDIN_FILENO);
    close(next);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = static_cast<rlim_t>(next) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(_scc_lib_client_connect(prefix.c_str()), next);
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
