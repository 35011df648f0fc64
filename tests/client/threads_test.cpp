// The library's threads: their names, their number and their signal masks.
#include "client/threads.h"

#include <pthread.h>

#include <csignal>
#include <cstdlib>

#include "client/channel_support.h"
#include "client/send_checker.h"

namespace {

class Threads : public test::runtime_test {};

test::event_queue<std::string>& reports() {
    static auto* queue = new test::event_queue<std::string>;
    return *queue;
}

std::string own_name() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST_F(Threads, TwoRunAndAreNamedWithThePid) {
    EXPECT_EQ(test::library_threads(), 0U);
    start();
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
}

TEST_F(Threads, TheCheckerStaysAndTheReceiveThreadEndsWithTheRegistration) {
    start();
    stop();
    EXPECT_TRUE(test::eventually(test::only_the_checker_is_left));
}

// Whether a mask of /proc blocks everything that can be blocked: KILL and STOP cannot, and the two signals
// that the C library reserves are ignored.
bool blocks_everything(const std::string& mask) {
    const unsigned long long blocked = std::strtoull(mask.c_str(), nullptr, 16);
    for (int signal = 1; signal <= 64; ++signal) {
        const bool exempt = signal == SIGKILL || signal == SIGSTOP || signal == 32 || signal == 33;
        if (!exempt && (blocked >> (signal - 1) & 1) == 0) {
            ADD_FAILURE() << "signal " << signal << " is not blocked in " << mask;
            return false;
        }
    }
    return true;
}

TEST_F(Threads, BlockEverySignal) {
    start();
    EXPECT_TRUE(test::eventually([] { return test::library_threads() == 2; }));
    for (const std::string& mask : test::of_library_threads("SigBlk")) {
        EXPECT_TRUE(blocks_everything(mask));
    }
}

TEST_F(Threads, TheHostsSignalMaskStaysAsItWas) {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGUSR2);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &wanted, nullptr), 0);
    start();
    sigset_t now;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &now), 0);
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(sigismember(&now, signal), signal == SIGUSR2 ? 1 : 0) << signal;
    }
}

TEST_F(Threads, NoSignalHandlerIsInstalled) {
    start();
    for (const int signal : {SIGPIPE, SIGCHLD, SIGALRM, SIGUSR1, SIGUSR2}) {
        struct sigaction action {};
        ASSERT_EQ(sigaction(signal, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_DFL);
    }
}

TEST_F(Threads, AVanishedDaemonDoesNotKillTheHost) {
    start_with_holding_handler();
    hold();
    daemon.close_both();
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 0U);
    release();
    EXPECT_EQ(test::statuses().wait(), 0U);
}

std::string detach_state() {
    pthread_attr_t attributes;
    int state = -1;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &state), 0);
    pthread_attr_destroy(&attributes);
    return state == PTHREAD_CREATE_DETACHED ? "detached" : "to be joined";
}

TEST_F(Threads, TheReceiveThreadAndTheCheckerAreDetached) {
    info.handlers.authmode = [](std::uint32_t) { reports().push(detach_state()); };
    start();
    daemon.send_item(test::side::async, 214, test::wire().u32(0).u32(1));
    EXPECT_EQ(reports().wait(), "detached");
    // A second checker ends at once, but detaches itself first.
    ASSERT_TRUE(test::eventually([] { return g_send_buf_chk_enabled.load() == 1U; }));
    EXPECT_EQ(scc::start_thread(
                  [](void*) -> void* {
                      _scc_lib_send_buf_chk_thread(nullptr);
                      reports().push(detach_state());
                      return nullptr;
                  },
                  nullptr),
              0U);
    EXPECT_EQ(reports().wait(), "detached");
}

TEST_F(Threads, AThreadGetsItsArgumentAndItsName) {
    static int marker = 5;
    EXPECT_EQ(scc::start_thread(
                  [](void* argument) -> void* {
                      scc::detach_and_name("a-name-of-its-own-that-is-long");
                      reports().push(argument == &marker ? own_name() : "wrong argument");
                      return nullptr;
                  },
                  &marker),
              0U);
    EXPECT_EQ(reports().wait(), "a-name-of-its-o");
}

TEST_F(Threads, TheNameWithThePidComesFromTheControlBlock) {
    g_scc_client_cb.pid = 12345678;
    EXPECT_EQ(scc::start_thread(
                  [](void*) -> void* {
                      scc::detach_and_name_with_pid();
                      reports().push(own_name());
                      return nullptr;
                  },
                  nullptr),
              0U);
    EXPECT_EQ(reports().wait(), "scclib-12345678");
}

}  // namespace
