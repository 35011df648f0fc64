// The library as a guest in its host: a program that loads it at run time, as a plug-in would. Nothing here
// is linked with it, so only the shared library itself is observed.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "scclib.h"
#include "support/events.h"
#include "support/scripted_daemon.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

test::event_queue<std::uint32_t>& statuses() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

test::event_queue<std::uint32_t>& results() {
    static auto* queue = new test::event_queue<std::uint32_t>;
    return *queue;
}

class Guest : public ::testing::Test {
  protected:
    Guest() {
        info.app_id = 7;
        info.option = 1;
        info.handlers.server_status = [](std::uint32_t status) { statuses().push(status); };
        info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t, std::uint32_t, std::uint8_t) {
            results().push(result);
        };
    }

    void load() {
        library = dlopen(LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        register_application = find<decltype(&scc_svr_reg)>("scc_svr_reg");
        unregister_application = find<decltype(&scc_svr_unreg)>("scc_svr_unreg");
        request = find<decltype(&scc_addr_learning)>("scc_addr_learning");
    }

    template <class Function>
    Function find(const char* name) {
        const auto found = reinterpret_cast<Function>(dlsym(library, name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    void start() {
        ASSERT_EQ(register_application(&info), 0U);
        daemon.accept_registration();
        ASSERT_EQ(statuses().wait(), 1U);
    }

    void stop(std::uint32_t daemon_result = 0) {
        std::thread answering([&] { daemon.answer_unregistration(daemon_result); });
        EXPECT_EQ(unregister_application(), daemon_result == 0 ? 0U : 2001U);
        answering.join();
    }

    void expect_working() {
        std::uint32_t call_id = 0;
        ASSERT_EQ(request(5, 1, &call_id), 0U);
        EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(call_id).u32(5).u32(1)));
        daemon.send_result(call_id, 2014);
        EXPECT_EQ(results().wait(), 2014U);
    }

    // Item 206: the debug command.
    void command(std::uint32_t number, std::uint32_t value) {
        daemon.send_item(side::async, 206, wire().zeros(24).u32(value).zeros(4).u32(number).u32(3).zeros(12));
    }

    scc_reg_info info{};
    test::scripted_daemon daemon;
    void* library = nullptr;
    decltype(&scc_svr_reg) register_application = nullptr;
    decltype(&scc_svr_unreg) unregister_application = nullptr;
    decltype(&scc_addr_learning) request = nullptr;
};

TEST_F(Guest, StaysMappedWhenItsHostUnloadsIt) {
    load();
    start();
    ASSERT_EQ(dlclose(library), 0);
    void* still_there = dlopen(LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(still_there, nullptr);
    EXPECT_EQ(dlclose(still_there), 0);
    expect_working();
    stop();
    // The thread that flushes requests outlives the registration, and serves the next one.
    load();
    ASSERT_EQ(dlclose(library), 0);
    start();
    expect_working();
    stop();
}

// The descriptors that a program finds open when the host executes it.
std::string descriptors_of_an_executed_program() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    char name[] = "ls";
    char directory[] = "/proc/self/fd";
    char* const arguments[] = {name, directory, nullptr};
    pid_t child = -1;
    EXPECT_EQ(posix_spawnp(&child, name, &actions, nullptr, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string listed;
    char part[512];
    for (ssize_t got = read(ends[0], part, sizeof part); got > 0; got = read(ends[0], part, sizeof part)) {
        listed.append(part, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return listed;
}

TEST_F(Guest, LeavesNoDescriptorToAProgramThatItsHostExecutes) {
    const std::string before = descriptors_of_an_executed_program();
    EXPECT_NE(before, "");
    load();
    start();
    command(1, 1);  // the log has a descriptor, too
    expect_working();
    EXPECT_EQ(descriptors_of_an_executed_program(), before);
    daemon.close_both();
    ASSERT_EQ(statuses().wait(), 0U);
    daemon.accept_registration();
    ASSERT_EQ(statuses().wait(), 1U);
    EXPECT_EQ(descriptors_of_an_executed_program(), before);
    stop();
}

// Standard output and error go to a file while it lives.
class quiet_host {
  public:
    explicit quiet_host(const std::string& path) {
        fflush(nullptr);
        const int file = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
        for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            saved_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
            dup2(file, fd);
        }
        close(file);
    }
    ~quiet_host() {
        fflush(nullptr);
        for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            dup2(saved_[fd], fd);
            close(saved_[fd]);
        }
    }
    quiet_host(const quiet_host&) = delete;
    quiet_host& operator=(const quiet_host&) = delete;

  private:
    int saved_[3] = {-1, -1, -1};
};

TEST_F(Guest, WritesNothingToItsHostsOutputWhateverHappens) {
    unsetenv("QX_SYSLOG_STDERR");
    const std::string path = daemon.directory().path() + "/output";
    {
        const quiet_host redirected(path);
        load();
        EXPECT_EQ(register_application(nullptr), 22U);
        start();
        command(1, 1);  // every line of the log from here on
        EXPECT_EQ(register_application(&info), 0U);
        expect_working();
        command(3, 0);
        daemon.send_item(side::async, 9999, {});
        daemon.send(side::async, wire().u32(8).u8(1).u16(0).u8(0));
        daemon.send_result(77, 0);
        expect_working();
        stop(5);
        daemon.close_both();
        EXPECT_EQ(statuses().wait(), 0U);
        daemon.accept_both();
        daemon.answer_registration(side::sync, 2000, 4711);
        daemon.accept_registration();
        EXPECT_EQ(statuses().wait(), 1U);
        expect_working();
        stop();
    }
    std::ifstream written(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), "");
}

std::atomic<long> g_handled_on{0};

TEST_F(Guest, LeavesItsHostsSignalsToItsHostsThreads) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_handled_on = syscall(SYS_gettid); };
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    load();
    start();
    expect_working();
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    EXPECT_EQ(sigismember(&before, SIGUSR1), 0);
    ASSERT_EQ(kill(getpid(), SIGUSR1), 0);
    expect_working();
    sigset_t waiting;
    ASSERT_EQ(sigpending(&waiting), 0);
    EXPECT_EQ(sigismember(&waiting, SIGUSR1), 1);
    EXPECT_EQ(g_handled_on.load(), 0);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    for (int i = 0; g_handled_on == 0 && i < 20000; ++i) {
        usleep(1000);  // a sanitizer delivers signals at the next blocking call
    }
    EXPECT_EQ(g_handled_on.load(), syscall(SYS_gettid));
    stop();
}

}  // namespace
