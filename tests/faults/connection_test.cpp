// Each system call of a start and of a registration fails in turn, with each error.
#include "client/connection.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "client/lifetime.h"
#include "fault_support.h"

using test::call;
using test::side;
using test::wire;

namespace {

int open_descriptors() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

struct connect_row {
    call which;
    const char* text;  // %d and %s stand for the error
    bool has_reason;
};

class ConnectionFaults : public test::fault_test {
  protected:
    void begin() {
        info.app_id = 7;
        info.handlers.server_status = test::on_status;
        ASSERT_EQ(scc_svr_reg(&info), 0U);
    }
};

TEST_F(ConnectionFaults, EachErrorOfEachCallComesBackNegativeLoggedAndWithoutALeak) {
    const connect_row rows[] = {
        {call::socket, "create socket error!!!", true},
        {call::bind, "bind socket error!!!", true},
        {call::connect, "connect to sccd failed!!!", true},
        {call::setsockopt, "", false},
    };
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const test::debugging on;
    for (const connect_row& row : rows) {
        test::for_each_error([&](int error, bool) {
            test::clear_log();
            const int before = open_descriptors();
            test::fail_call(row.which, 1, error);
            EXPECT_EQ(_scc_lib_client_connect(prefix.c_str()), -error);
            EXPECT_TRUE(test::end_faults());
            EXPECT_EQ(open_descriptors(), before);
            const std::string reason = strerror(error);
            if (row.has_reason) {
                EXPECT_EQ(test::log_texts(), (std::vector<std::string>{row.text, "reason:" + reason}));
            } else {
                EXPECT_EQ(test::log_texts(),
                          (std::vector<std::string>{"setsockopt fail errno=" + std::to_string(error) +
                                                    " error(" + reason + ")."}));
            }
        });
    }
    const int fd = _scc_lib_client_connect(prefix.c_str());
    EXPECT_GE(fd, 0);
    close(fd);
}

// The first or the second socket cannot be created: both are closed, both files are gone, and the next
// attempt succeeds.
struct attempt_row {
    call which;
    int nth;
    int error;

    friend void PrintTo(const attempt_row& row, std::ostream* out) {
        const char* const names[] = {"socket", "bind", "connect", "setsockopt"};
        *out << names[static_cast<int>(row.which) - static_cast<int>(call::socket)] << row.nth << "error"
             << row.error;
    }
};

class AttemptFaults : public ConnectionFaults, public ::testing::WithParamInterface<attempt_row> {};

TEST_P(AttemptFaults, GiveTheAttemptUpAndTheNextSucceeds) {
    const auto [which, nth, error] = GetParam();
    const int before = open_descriptors();
    test::fail_call(which, nth, error);
    begin();
    // The flag is set last when an attempt's sockets are closed.
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.state == 5U && scc_lib_rereg == 1; }));
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd2_")));
    // The failed attempt's connections are accepted before the next one's.
    daemon.stop_listening();
    daemon.listen();
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    EXPECT_EQ(test::statuses().size(), 0U);
    expect_working();
}

INSTANTIATE_TEST_SUITE_P(EachSocket, AttemptFaults,
                         ::testing::Values(attempt_row{call::socket, 1, 24}, attempt_row{call::socket, 2, 24},
                                           attempt_row{call::bind, 1, 13}, attempt_row{call::bind, 2, 98},
                                           attempt_row{call::connect, 1, 111},
                                           attempt_row{call::connect, 2, 4},
                                           attempt_row{call::setsockopt, 1, 22},
                                           attempt_row{call::setsockopt, 2, 11}));

class RegistrationReceiveFaults : public ConnectionFaults, public ::testing::WithParamInterface<int> {};

TEST_P(RegistrationReceiveFaults, GiveTheAttemptUpAndTheNextSucceeds) {
    test::fail_call(call::recv, GetParam(), 4);
    begin();
    daemon.accept_both();
    (void)daemon.read_item(side::sync);
    if (GetParam() >= 2) {
        daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    }
    if (GetParam() >= 3) {
        (void)daemon.read_item(side::async);
    }
    if (GetParam() >= 4) {
        daemon.send_item(side::async, 301, wire().u32(0).u32(0).u32(0));
    }
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_TRUE(test::end_faults());
    daemon.accept_registration();
    ASSERT_EQ(test::statuses().wait(), 1U);
    expect_working();
}

// Header and body of the sync socket's reply, then of the async socket's.
INSTANTIATE_TEST_SUITE_P(EachPart, RegistrationReceiveFaults, ::testing::Values(1, 2, 3, 4));

TEST_F(ConnectionFaults, AThreadThatCannotBeMadeEndsTheStartWithItsError) {
    const test::debugging on;
    daemon.stop_listening();
    for (const int nth : {1, 2}) {
        for (const int error : {1, 11, 12, 22}) {
            test::clear_log();
            info.app_id = 7;
            info.handlers.server_status = test::on_status;
            info.handlers.filter_counter_reset = [](std::uint32_t, std::uint32_t, const scc_acl_key*) {};
            test::fail_call(call::pthread_create, nth, error);
            EXPECT_EQ(scc_svr_reg(&info), static_cast<std::uint32_t>(error));
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ")create scclib thread error!"));
            EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
            EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
            EXPECT_EQ(scc::load_handler(g_scc_client_cb.handlers.server_status), nullptr);
            EXPECT_EQ(scc::load_handler(g_scc_client_cb.handlers.filter_counter_reset),
                      info.handlers.filter_counter_reset);
            EXPECT_EQ(scc_svi_router_acl_set(1, nullptr), 2004U);
        }
    }
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 0; }));
    EXPECT_EQ(test::statuses().size(), 0U);
    daemon.listen();
    start();
    expect_working();
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
}

TEST_F(ConnectionFaults, AThreadThatCannotBeMadeAfterTheSocketsConnectedClosesThem) {
    info.app_id = 7;
    info.handlers.server_status = test::on_status;
    test::on_call(call::pthread_create, [] {
        test::on_call(call::pthread_create, [] {
            EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.state == 3U; }));
            test::fail_call(call::pthread_create, 1, 11);
        });
    });
    EXPECT_EQ(scc_svr_reg(&info), 11U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd2_")));
    daemon.accept_both();
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 0; }));
    EXPECT_EQ(test::statuses().size(), 0U);
    start();
    expect_working();
}

TEST_F(ConnectionFaults, ADirectoryThatCannotBeMadeEndsTheStartWithItsError) {
    const test::debugging on;
    info.app_id = 7;
    // /tmp/, its own directory, security/ and scc/.
    for (int nth = 1; nth <= 4; ++nth) {
        for (const int error : {4, 9, 11, 13, 22, 28, 30}) {
            umask(022);
            test::clear_log();
            test::fail_call(call::mkdir, nth, error);
            EXPECT_EQ(scc_svr_reg(&info), static_cast<std::uint32_t>(error));
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() +
                                     ") mkdir failed:" + strerror(error) + "!"));
            EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
            EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
            EXPECT_EQ(umask(0), 0U);
        }
    }
    EXPECT_EQ(test::library_threads(), 0U);
    // An existing directory is not a failure.
    test::fail_call(call::mkdir, 4, 17);
    start();
    EXPECT_TRUE(test::end_faults());
    expect_working();
}

TEST_F(ConnectionFaults, AFailedCloseIsMinusOneLoggedAndTheFilesStay) {
    start_with_holding_handler();
    hold();
    const test::debugging on;
    const int before = g_scc_client_cb.sync_fd;
    test::fail_call(call::close, 1, 5);
    EXPECT_EQ(_scc_lib_client_close(), -1);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"close sync socket failed!!!", "reason:Input/output error"}));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), before);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_TRUE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_EQ(scc_lib_rereg.load(), 0);
    // The number is no longer ours: take it out by hand before the thread continues.
    g_scc_client_cb.sync_fd = -1;
    scc_lib_rereg = 1;
    release();
    expect_reconnection();
    expect_working();
}

TEST_F(ConnectionFaults, AnUnregistrationReplyThatCannotBeReadIsConsentOrTheError) {
    test::for_each_error([&](int error, bool lost) {
        start();
        test::fail_call(call::recv, 1, error);
        EXPECT_EQ(scc_svr_unreg(), lost ? 0U : static_cast<std::uint32_t>(error));
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(daemon.read_item(side::sync).type, 302);
        if (!lost) {
            EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
            // The late reply is not the next unregistration's.
            daemon.send_item(side::sync, 302, wire().u32(0).u32(1));
            expect_working();
            stop();
        }
        EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
        EXPECT_EQ(test::statuses().size(), 0U);
    });
}

// The number of the first socket is one of a standard descriptor, and there is no other left.
TEST_F(ConnectionFaults, ADescriptorThatCannotBeMovedIsTheErrorOfTheMove) {
    const test::debugging on;
    g_scc_client_cb.pid = 42;
    const std::string prefix = daemon.directory().runtime() + "/own_";
    const int kept = dup(STDIN_FILENO);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = STDERR_FILENO + 1;
    close(STDIN_FILENO);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    test::fail_call(call::close, 1, 5);
    const int result = _scc_lib_client_connect(prefix.c_str());
    const bool met = test::end_faults();
    const bool is_free = fcntl(STDIN_FILENO, F_GETFD) == -1;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    dup2(kept, STDIN_FILENO);
    EXPECT_TRUE(met);
    EXPECT_TRUE(is_free);
    EXPECT_EQ(result, -EINVAL);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"create socket error!!!", "reason:Invalid argument"}));
}

// It ends while the first socket connects.
TEST_F(ConnectionFaults, ARegistrationThatEndsWhileItConnectsConnectsOnlyOnce) {
    g_scc_client_cb.app_id = 7;
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    const std::uint32_t generation = scc::begin_generation();
    const int before = open_descriptors();
    test::on_call(call::connect, [] { scc::end_generation(); });
    EXPECT_EQ(scc::connect_and_register(scc::identity_of_control_block(), generation, "test"), 9U);
    EXPECT_EQ(test::calls(call::connect), 1);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_FALSE(test::end_faults());
    EXPECT_EQ(scc::connect_and_register(scc::identity_of_control_block(), generation, "test"), 9U);
    EXPECT_EQ(test::calls(call::socket), 0);
}

TEST_F(ConnectionFaults, ARegistrationThatCannotBeSentIsTheErrorOfTheSend) {
    g_scc_client_cb.app_id = 7;
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    const std::uint32_t generation = scc::begin_generation();
    test::fail_call(call::send, 1, 11);
    EXPECT_EQ(scc::connect_and_register(scc::identity_of_control_block(), generation, "test"), 11U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(_scc_lib_client_close(), 0);
}

TEST_F(ConnectionFaults, AThreadWhoseWaitFailsDuringAnUnregistrationLeavesAfterIt) {
    start_with_holding_handler();
    hold();
    std::thread ending([] { EXPECT_EQ(scc_svr_unreg(), 0U); });
    EXPECT_EQ(daemon.read_item(side::sync).type, 302);
    const test::debugging on;
    test::fail_call(call::poll, 1, 4);
    release();
    EXPECT_TRUE(test::wait_for_log("select error! errno:4."));
    EXPECT_TRUE(test::wait_until_it_sleeps_in(test::receive_thread(), test::waiting_for_a_lock));
    EXPECT_TRUE(test::end_faults());
    daemon.send_item(side::sync, 302, wire().u32(0).u32(0));
    ending.join();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
    EXPECT_FALSE(test::logged("appid 0 ready to rereg."));
}

// The daemon has a part of it, so its stream is out of step.
TEST_F(ConnectionFaults, AnUnregistrationOfWhichAPartWentOutEndsTheConnection) {
    start();
    test::limit_transfer(5);
    test::fail_call(call::send, 2, 11);
    EXPECT_EQ(scc_svr_unreg(), 11U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    expect_reconnection();
    expect_working();
}

}  // namespace
