// What a start does to the process and its runtime directory before any thread runs.
#include "client/start.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "client/channel_support.h"
#include "client/descriptors.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

class Start : public test::runtime_test {
  protected:
    Start() { info.app_id = 7; }

    static mode_t mask_now() {
        const mode_t mask = umask(0);
        umask(mask);
        return mask;
    }
};

mode_t mode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST_F(Start, SetsTheUmaskTo0) {
    umask(022);
    start();
    EXPECT_EQ(mask_now(), 0U);
}

TEST_F(Start, LeavesTheUmaskAloneWhenTheRecordIsRefused) {
    umask(027);
    EXPECT_EQ(scc_svr_reg(nullptr), 22U);
    info.app_id = 20;
    EXPECT_EQ(scc_svr_reg(&info), 22U);
    EXPECT_EQ(mask_now(), 027U);
}

TEST_F(Start, WithoutTmpdirItIs5WithTheUmaskSet) {
    const test::debugging on;
    umask(027);
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_svr_reg(&info), 5U);
    EXPECT_TRUE(test::logged("scclib create tmp dir error."));
    EXPECT_EQ(mask_now(), 0U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(test::library_threads(), 0U);
    setenv("TMPDIR", daemon.directory().path().c_str(), 1);
    start();
}

TEST_F(Start, ATmpdirThatLeavesNoRoomIs5) {
    // 95 and 13 characters fill the buffer of 108, with no space for the terminating null.
    setenv("TMPDIR", ("/" + std::string(94, 'x')).c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 5U);
}

TEST_F(Start, ADirectoryThatCannotBeMadeIsItsErrorWithTheUmaskSet) {
    const test::debugging on;
    umask(027);
    const std::string file = daemon.directory().path() + "/file";
    close(creat(file.c_str(), 0600));
    setenv("TMPDIR", file.c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 20U);
    EXPECT_TRUE(test::logged("(app id:7, pid:" + test::own_pid() + ") mkdir failed:Not a directory!"));
    EXPECT_EQ(mask_now(), 0U);
    setenv("TMPDIR", "relative", 1);
    EXPECT_EQ(scc_svr_reg(&info), 20U);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(test::library_threads(), 0U);
}

TEST_F(Start, TheLockIsFreeAgainAfterEachFailure) {
    unsetenv("TMPDIR");
    EXPECT_EQ(scc_svr_reg(&info), 5U);
    setenv("TMPDIR", "relative", 1);
    EXPECT_EQ(scc_svr_reg(&info), 20U);
    EXPECT_EQ(scc_svr_unreg(), 0U);
    EXPECT_EQ(scc_addr_learning(1, 1, nullptr), 2004U);
}

TEST_F(Start, MakesTheRuntimeDirectoryOpenToEverybody) {
    const std::string base = daemon.directory().path() + "/new";
    setenv("TMPDIR", base.c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(mode_of(base), 0777U);
    EXPECT_EQ(mode_of(base + "/security"), 0777U);
    EXPECT_EQ(mode_of(base + "/security/scc"), 0777U);
}

TEST_F(Start, OpensARuntimeDirectoryThatIsThereAlready) {
    ASSERT_EQ(chmod(daemon.directory().runtime().c_str(), 0700), 0);
    start();
    EXPECT_EQ(mode_of(daemon.directory().runtime()), 0777U);
}

// Any user may put a link into the directory, and a host may run as root.
TEST_F(Start, ALinkInTheRuntimeDirectorysPlaceLeavesItsTargetAlone) {
    const std::string victim = daemon.directory().path() + "/victim";
    const std::string base = daemon.directory().path() + "/linked";
    std::filesystem::create_directories(base + "/security");
    std::filesystem::create_directory(victim);
    ASSERT_EQ(chmod(victim.c_str(), 0700), 0);
    std::filesystem::create_directory_symlink(victim, base + "/security/scc");
    setenv("TMPDIR", base.c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(mode_of(victim), 0700U);
}

TEST_F(Start, ALinkInItsParentsPlaceLeavesItsTargetAlone) {
    const std::string victim = daemon.directory().path() + "/victim";
    const std::string base = daemon.directory().path() + "/linked";
    std::filesystem::create_directories(victim + "/scc");
    std::filesystem::create_directory(base);
    ASSERT_EQ(chmod((victim + "/scc").c_str(), 0700), 0);
    std::filesystem::create_directory_symlink(victim, base + "/security");
    setenv("TMPDIR", base.c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(mode_of(victim + "/scc"), 0700U);
}

// The administrator's own choice, such as /tmp on another disk.
TEST_F(Start, TmpdirItselfMayBeALink) {
    const std::string target = daemon.directory().path() + "/disk";
    const std::string base = daemon.directory().path() + "/linked";
    std::filesystem::create_directories(target + "/security/scc");
    ASSERT_EQ(chmod((target + "/security/scc").c_str(), 0700), 0);
    std::filesystem::create_directory_symlink(target, base);
    setenv("TMPDIR", base.c_str(), 1);
    EXPECT_EQ(scc_svr_reg(&info), 0U);
    EXPECT_EQ(mode_of(target + "/security/scc"), 0777U);
}

std::size_t open_descriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

TEST_F(Start, OpeningTheRuntimeDirectoryKeepsNoDescriptor) {
    const std::string base = daemon.directory().path() + "/linked";
    const std::size_t before = open_descriptors();
    scc::open_runtime_directory();
    setenv("TMPDIR", base.c_str(), 1);
    scc::open_runtime_directory();  // there is nothing
    std::filesystem::create_directory(base);
    scc::open_runtime_directory();
    std::filesystem::create_directory_symlink(daemon.directory().path(), base + "/security");
    scc::open_runtime_directory();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Start, LeavesNothingOfALongerNameInTheControlBlock) {
    std::memset(g_scc_client_cb.process_name, 'x', sizeof g_scc_client_cb.process_name);
    ASSERT_GT(std::strlen(program_invocation_name), 3U);
    std::memcpy(program_invocation_name, "app", 4);
    start();
    bytes expected = wire().text("app");
    expected.resize(107);
    EXPECT_EQ(bytes(g_scc_client_cb.process_name, g_scc_client_cb.process_name + 107), expected);
}

TEST_F(Start, TakesTheIdentityOver) {
    start(2);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 7U);
    EXPECT_EQ(g_scc_client_cb.option.load(), 2U);
    EXPECT_EQ(g_scc_client_cb.pid.load(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(g_scc_client_cb.thread_mode.load(), 1U);
    std::ifstream file("/proc/self/cmdline");
    std::string first;
    std::getline(file, first, '\0');
    EXPECT_EQ(std::string(g_scc_client_cb.process_name), first.substr(0, 106));
}

TEST_F(Start, AFileInTheRuntimeDirectorysPlaceKeepsItsMode) {
    const std::string base = daemon.directory().path() + "/other";
    std::filesystem::create_directories(base + "/security");
    std::ofstream(base + "/security/scc") << "text";
    ASSERT_EQ(chmod((base + "/security/scc").c_str(), 0600), 0);
    setenv("TMPDIR", base.c_str(), 1);
    scc::open_runtime_directory();
    EXPECT_EQ(mode_of(base + "/security/scc"), 0600U);
}

// A host may run without its standard descriptors.
TEST_F(Start, OpeningTheRuntimeDirectoryKeepsNoDescriptorEvenIfItIsZero) {
    const int input = dup(STDIN_FILENO);
    ASSERT_EQ(close(STDIN_FILENO), 0);
    scc::open_runtime_directory();
    const int zero = fcntl(STDIN_FILENO, F_GETFD);
    EXPECT_EQ(zero, -1) << "descriptor 0 was left open";
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST_F(Start, TakesANameThatDiffersByOneCharacter) {
    ASSERT_GT(std::strlen(program_invocation_name), 3U);
    std::memcpy(program_invocation_name, "app", 4);
    std::memset(g_scc_client_cb.process_name, 0, sizeof g_scc_client_cb.process_name);
    std::memcpy(g_scc_client_cb.process_name, "apq", 3);
    start();
    EXPECT_STREQ(g_scc_client_cb.process_name, "app");
}

TEST_F(Start, ThatSucceedsLogsNoFailure) {
    const test::debugging on;
    start();
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
}

TEST_F(Start, ThatIsUndoneKeepsAnyOtherAwayUntilItIsUndone) {
    static bool alone = false;
    scc::undo_start([] { alone = scc::is_started(scc::start_kind::agent); });
    EXPECT_TRUE(alone);
    EXPECT_FALSE(scc::is_started(scc::start_kind::agent));
}

// 107 bytes with the terminator. The kernel takes the name from the memory of the arguments.
TEST_F(Start, CutsALongNameTo106Characters) {
    std::memset(program_invocation_name, 'x', 150);
    program_invocation_name[150] = '\0';
    start();
    bytes expected(106, 'x');
    expected.push_back(0);
    EXPECT_EQ(bytes(g_scc_client_cb.process_name, g_scc_client_cb.process_name + 107), expected);
}

}  // namespace
