// The start of the security service, as seen by the daemon and by the process.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <thread>

#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "ss/service.h"
#include "ss/service_fixture.h"
#include "support/waiting.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

using ServiceRegistration = test::registered_service;

std::string pid_text() {
    return std::to_string(getpid());
}

std::size_t threads_named(const std::string& wanted) {
    const auto threads = test::process_threads("Name");
    return static_cast<std::size_t>(
        std::ranges::count_if(threads, [&](const auto& one) { return one.name == wanted; }));
}

// A thread has its name a moment after it was started, and is there a moment after it has ended.
bool threads_become(const std::string& name, std::size_t count) {
    return test::eventually([&] { return threads_named(name) == count; });
}

TEST_F(ServiceRegistration, RegistersAppId16WithOptionZeroOnBothSockets) {
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    const auto [sync, async] = daemon.accept_registration();
    const auto pid = static_cast<std::uint32_t>(getpid());
    EXPECT_EQ(sync, bytes(wire().u32(16).u32(pid).u8(0).u8(1).zeros(2)));
    EXPECT_EQ(async, bytes(wire().u32(16).u32(pid).u8(0).u8(0).zeros(2)));
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 1U);
}

TEST_F(ServiceRegistration, RefusesANullRecord) {
    const test::debugging on;
    EXPECT_EQ(scc_ss_reg(nullptr), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"input param is null!."});
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
}

TEST_F(ServiceRegistration, ASecondRegistrationSucceedsAndChangesNothing) {
    start_with_all_handlers();
    const test::debugging on;
    const scc_ss_reg_info nothing{};
    EXPECT_EQ(scc_ss_reg(&nothing), 0U);
    EXPECT_EQ(test::log_texts(),
              std::vector<std::string>{"(app id:16, pid:" + pid_text() + ") already registered!"});
    send(143, wire().u32(1).u32(1));
    called(8);
    EXPECT_EQ(test::service_statuses().size(), 0U);
}

TEST_F(ServiceRegistration, ASecondRegistrationWhileTheFirstIsUnansweredSucceedsToo) {
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    EXPECT_EQ(scc_ss_reg(&info), 0U);
    daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    daemon.answer_registration(side::async);
    EXPECT_EQ(test::service_statuses().wait(), 1U);
}

TEST_F(ServiceRegistration, AnApplicationCannotRegisterBesideTheService) {
    start();
    scc_reg_info application{};
    application.app_id = 7;
    EXPECT_EQ(scc_svr_reg(&application), 0U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 16U);
}

TEST_F(ServiceRegistration, Returns5WithoutARuntimeRoot) {
    const test::debugging on;
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_ss_reg(&info), 5U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib create tmp dir error."});
}

TEST_F(ServiceRegistration, Returns5WhenThePathDoesNotFitIts108Bytes) {
    setenv("TMPDIR", ("/tmp/" + std::string(120, 'x')).c_str(), 1);
    EXPECT_EQ(scc_ss_reg(&info), 5U);
}

TEST_F(ServiceRegistration, ReturnsTheErrorOfCreatingTheDirectory) {
    const std::string file = daemon.directory().path() + "/file";
    std::ofstream(file) << "in the way";
    setenv("TMPDIR", file.c_str(), 1);
    const test::debugging on;
    EXPECT_EQ(scc_ss_reg(&info), 20U);
    EXPECT_TRUE(test::logged("(app id:16, pid:" + pid_text() + ") mkdir failed:Not a directory!"));
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
}

TEST_F(ServiceRegistration, CanBeRepeatedAfterAFailure) {
    const std::string root = daemon.directory().path();
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_ss_reg(&info), 5U);
    setenv("TMPDIR", root.c_str(), 1);
    start();
}

TEST_F(ServiceRegistration, ClearsTheCreationMaskAndOpensTheDirectory) {
    umask(077);
    ASSERT_EQ(chmod(daemon.directory().runtime().c_str(), 0700), 0);
    start();
    struct stat found {};
    ASSERT_EQ(stat(daemon.directory().runtime().c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0777U);
    EXPECT_EQ(umask(0), 0U);
}

TEST_F(ServiceRegistration, ClearsTheCreationMaskEvenWhenItFailsButNotForANullRecord) {
    umask(027);
    EXPECT_EQ(scc_ss_reg(nullptr), 22U);
    EXPECT_EQ(umask(027), 027U);
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_ss_reg(&info), 5U);
    EXPECT_EQ(umask(0), 0U);
}

TEST_F(ServiceRegistration, TakesAConnectedClientForARegisteredOneWhateverItsState) {
    start_with_all_handlers();
    g_scc_client_cb.state = 1;
    const test::debugging on;
    const scc_ss_reg_info nothing{};
    EXPECT_EQ(scc_ss_reg(&nothing), 0U);
    EXPECT_TRUE(test::logged("(app id:16, pid:" + pid_text() + ") already registered!"));
    g_scc_client_cb.state = 4;
    send(143, wire().u32(1).u32(1));
    called(8);
}

TEST_F(ServiceRegistration, CreatesTheDirectoryAndWaitsForALateDaemon) {
    daemon.stop_listening();
    std::filesystem::remove_all(daemon.directory().path() + "/security");
    const test::debugging on;
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(daemon.directory().runtime()));
    EXPECT_EQ(scc_ss_fetch_func(), 2004U);
    daemon.listen();
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    EXPECT_TRUE(test::wait_for_log("(app id:16, pid:" + pid_text() + ")register to sccd success!"));
}

TEST_F(ServiceRegistration, RunsThreeThreadsWithNames) {
    start();
    EXPECT_TRUE(threads_become("scc-lib-ss", 1));
    EXPECT_TRUE(threads_become("scc-lib-msgq", 1));
    EXPECT_TRUE(threads_become("scclib-" + pid_text(), 1));
}

TEST_F(ServiceRegistration, RunsOneProcessingThreadOverSeveralRegistrations) {
    for (int round = 0; round < 3; ++round) {
        start_with_all_handlers();
        send(201, wire().u32(1).u32(9).u8(1));
        EXPECT_EQ(called(24), bytes(wire().u8(1)));
        expect_result(0, wire().u32(1).u32(0).u32(0));
        std::thread unregistering([] { EXPECT_EQ(scc_svr_unreg(), 0U); });
        daemon.answer_unregistration();
        unregistering.join();
        EXPECT_TRUE(threads_become("scc-lib-ss", 0));
    }
    start();
    EXPECT_TRUE(threads_become("scc-lib-msgq", 1));
    EXPECT_TRUE(threads_become("scc-lib-ss", 1));
}

TEST_F(ServiceRegistration, BeginsWithNothingCountedBeforeTheDaemonAnswers) {
    start();
    scc::count_received(0, 5);
    scc::count_result(3);
    std::thread unregistering([] { EXPECT_EQ(scc_svr_unreg(), 0U); });
    daemon.answer_unregistration();
    unregistering.join();
    _scc_lib_func_call_succ(4);
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    for (std::uint32_t pair = 0; pair < 25; ++pair) {
        EXPECT_EQ(scc::read_count(pair).received, 0U) << pair;
        EXPECT_EQ(scc::read_count(pair).answered, 0U) << pair;
    }
    EXPECT_EQ(scc::read_statistics(4).calls, 0U);
}

std::string detach_state() {
    pthread_attr_t attributes;
    int state = -1;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &state), 0);
    pthread_attr_destroy(&attributes);
    return state == PTHREAD_CREATE_DETACHED ? "detached" : "to be joined";
}

test::event_queue<std::string>& states() {
    static auto* queue = new test::event_queue<std::string>;
    return *queue;
}

TEST_F(ServiceRegistration, DetachesItsReceiveAndItsProcessingThread) {
    info.server_status = [](std::uint32_t) { states().push(detach_state()); };
    info.authmode = [](std::uint32_t) { states().push(detach_state()); };
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_registration();
    EXPECT_EQ(states().wait(), "detached");
    send(214, wire().u32(0).u32(1));
    EXPECT_EQ(states().wait(), "detached");
}

TEST_F(ServiceRegistration, TakesTheDebugSwitchOfItsProcessName) {
    // The name is the process's first argument, whole.
    ASSERT_GT(std::strlen(program_invocation_name), 3U);
    std::memcpy(program_invocation_name, "svc", 4);
    std::ofstream(daemon.directory().runtime() + "/scclib_dbg.txt") << "other   0\nSVC   1\n";
    start();
    EXPECT_EQ(scc_lib_debug.load(), 1);
}

// The handler with a VLAN is late in the record, but next to the other application handler in the table.
TEST_F(ServiceRegistration, CopiesEveryHandlerToItsSlotInTheTable) {
    static const int targets[26] = {};
    std::array<std::uintptr_t, 26> given{};
    for (std::size_t i = 0; i < given.size(); ++i) {
        given[i] = reinterpret_cast<std::uintptr_t>(&targets[i]);
    }
    static_assert(sizeof(scc_ss_reg_info) == sizeof given);
    std::memcpy(&info, given.data(), sizeof info);
    _scc_ss_handler_set(&info);

    std::array<std::uintptr_t, 23> table{};
    static_assert(sizeof g_scc_ss_cb == sizeof table);
    std::memcpy(table.data(), &g_scc_ss_cb, sizeof table);
    constexpr std::size_t slot_of_table[23] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                               15, 23, 16, 17, 18, 19, 20, 21, 22, 24, 25};
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(table[i], given[slot_of_table[i]]) << "table slot " << i;
    }
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(g_scc_client_cb.handlers.server_status), given[0]);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(g_scc_client_cb.handlers.direct_vlan_notify), given[13]);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(g_scc_client_cb.handlers.authmode), given[14]);
}

TEST_F(ServiceRegistration, ClearingLeavesAllTwentySixTargetsNull) {
    info = test::all_handlers();
    _scc_ss_handler_set(&info);
    _scc_ss_handler_clear();
    const scc::service_handlers none{};
    EXPECT_EQ(std::memcmp(&g_scc_ss_cb, &none, sizeof none), 0);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
    EXPECT_EQ(g_scc_client_cb.handlers.direct_vlan_notify, nullptr);
    EXPECT_EQ(g_scc_client_cb.handlers.authmode, nullptr);
}

TEST_F(ServiceRegistration, FetchesInRealTimeOnTheSynchronousSocketWithFreshIds) {
    start();
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    const bytes first = wire().u32(24).u8(1).u16(1).u8(0).u32(8).u16(0).u16(204).u32(1).u32(16);
    EXPECT_EQ(daemon.read(side::sync).raw, first);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(2).u32(16)));
}

TEST_F(ServiceRegistration, FetchReturns2004BeforeRegistrationAndTakesNoId) {
    const test::debugging on;
    EXPECT_EQ(scc_ss_fetch_func(), 2004U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{"scclib no registered or scc svr no available."});
    start();
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(1).u32(16)));
}

TEST_F(ServiceRegistration, FetchReturns2004WhileTheRegistrationIsUnanswered) {
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_both();
    EXPECT_EQ(daemon.read_item(side::sync).type, 301);
    EXPECT_EQ(scc_ss_fetch_func(), 2004U);
    daemon.send_item(side::sync, 301, wire().u32(0).u32(0).u32(0));
    daemon.answer_registration(side::async);
    ASSERT_EQ(test::service_statuses().wait(), 1U);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).type, 204);
}

TEST_F(ServiceRegistration, ComesBackAfterALostDaemonAndGoesOnCountingIds) {
    start_with_all_handlers();
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    daemon.close_both();
    EXPECT_EQ(test::service_statuses().wait(), 0U);
    const auto [sync, async] = daemon.accept_registration();
    EXPECT_EQ(test::slice(sync, 0, 4), bytes(wire().u32(16)));
    EXPECT_EQ(test::slice(async, 0, 4), bytes(wire().u32(16)));
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).value, bytes(wire().u32(2).u32(16)));
    send(143, wire().u32(1).u32(1));
    called(8);
}

TEST_F(ServiceRegistration, KeepsTryingWhileTheDaemonRefuses) {
    info.server_status = test::on_service_status;
    ASSERT_EQ(scc_ss_reg(&info), 0U);
    daemon.accept_both();
    daemon.answer_registration(side::sync, 1, 4711);
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_EQ(scc_ss_fetch_func(), 2004U);
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
}

}  // namespace
