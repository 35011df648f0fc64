// The paths of the files, creating directories, and the process's name.
#include "msg/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/child_process.h"
#include "support/guarded_bytes.h"
#include "support/temp_dir.h"
#include "support/wire_bytes.h"

namespace {

namespace fs = std::filesystem;

// ---- scc_make_path ------------------------------------------------------------------------------------

class MakePath : public ::testing::Test {
  protected:
    MakePath() {
        setenv("TMPDIR", "/tmp/3", 1);
        setenv("DATA_QXOS_DIR", "/data", 1);
    }

    // A failure leaves the buffer as it is.
    void expect_refused(char* dst, const char* suffix, int size, int base) {
        const std::string before(buffer, sizeof buffer);
        EXPECT_EQ(scc_make_path(dst, suffix, size, base), 0);
        EXPECT_EQ(std::string(buffer, sizeof buffer), before);
    }

    char buffer[128] = "untouched";
};

TEST_F(MakePath, JoinsTheRuntimeOrTheDataDirectoryWithTheSuffix) {
    EXPECT_EQ(scc_make_path(buffer, "/security/scc", 108, 1), 1);
    EXPECT_STREQ(buffer, "/tmp/3/security/scc");
    EXPECT_EQ(scc_make_path(buffer, "/security/scc/scclib_dbg.txt", 108, 2), 1);
    EXPECT_STREQ(buffer, "/data/security/scc/scclib_dbg.txt");
    EXPECT_EQ(scc_make_path(buffer, "", 108, 1), 1);
    EXPECT_STREQ(buffer, "/tmp/3");
}

TEST_F(MakePath, RefusesNullPointersUnknownSelectorsAndUnsetVariables) {
    expect_refused(nullptr, "/x", 108, 1);
    expect_refused(buffer, nullptr, 108, 1);
    for (const int base : {0, 3, -1, 0x101}) {
        expect_refused(buffer, "/x", 108, base);
    }
    unsetenv("TMPDIR");
    expect_refused(buffer, "/x", 108, 1);
    unsetenv("DATA_QXOS_DIR");
    expect_refused(buffer, "/x", 108, 2);
}

TEST_F(MakePath, TheTerminatorMustFit) {
    const std::string base = "/" + std::string(49, 'b');
    setenv("TMPDIR", base.c_str(), 1);
    expect_refused(buffer, ("/" + std::string(57, 's')).c_str(), 108, 1);  // 50 + 58 = 108
    const std::string suffix = "/" + std::string(56, 's');                 // 50 + 57 = 107
    EXPECT_EQ(scc_make_path(buffer, suffix.c_str(), 108, 1), 1);
    EXPECT_EQ(std::string(buffer), base + suffix);
    expect_refused(buffer, "", 50, 1);
    EXPECT_EQ(scc_make_path(buffer, "", 51, 1), 1);
    expect_refused(buffer, "", 0, 1);
    expect_refused(buffer, "", -1, 1);
}

TEST_F(MakePath, TheSocketsAndTheSwitchFileHaveTheirNames) {
    EXPECT_STREQ(scc::runtime_directory_suffix, "/security/scc");
    EXPECT_STREQ(scc::daemon_socket_suffix, "/security/scc/.sccd_sd_");
    EXPECT_STREQ(scc::sync_socket_suffix, "/security/scc/.sccl_sd1_");
    EXPECT_STREQ(scc::async_socket_suffix, "/security/scc/.sccl_sd2_");
    EXPECT_STREQ(scc::debug_file_suffix, "/security/scc/scclib_dbg.txt");
    scc::path_buffer path;
    EXPECT_EQ(sizeof path.text, 108U);
    EXPECT_TRUE(scc::make_path(path, scc::daemon_socket_suffix));
    EXPECT_STREQ(path.text, "/tmp/3/security/scc/.sccd_sd_");
    EXPECT_TRUE(scc::make_path(path, scc::debug_file_suffix, scc::path_base::persistent));
    EXPECT_STREQ(path.text, "/data/security/scc/scclib_dbg.txt");
}

// ---- _scc_dir_create ----------------------------------------------------------------------------------

class DirCreate : public ::testing::Test {
  protected:
    DirCreate() { umask(0); }
    ~DirCreate() override { fs::current_path("/"); }

    [[nodiscard]] std::string in(const std::string& name) const { return directory.path() + name; }

    // A directory whose own path has this length, made and entered component by component.
    std::string enter_directory_of_length(std::size_t length) {
        std::string path = directory.path();
        while (path.size() < length) {
            const std::size_t left = length - path.size();
            path += "/" + std::string(left > 202 ? 199 : left - 1, 'd');
        }
        fs::create_directories(path);
        fs::current_path(path);
        return path;
    }

    test::temp_dir directory;
};

TEST_F(DirCreate, MakesEveryDirectoryOfThePathOpenToAll) {
    ASSERT_EQ(_scc_dir_create(in("/a/b/c").c_str()), 0U);
    for (const char* made : {"/a", "/a/b", "/a/b/c"}) {
        struct stat found {};
        ASSERT_EQ(stat(in(made).c_str(), &found), 0) << made;
        EXPECT_EQ(found.st_mode & 07777U, 0777U) << made;
    }
}

TEST_F(DirCreate, SkipsEmptyComponentsAndTakesWhatExists) {
    EXPECT_EQ(_scc_dir_create(in("//x///y//").c_str()), 0U);
    EXPECT_TRUE(fs::is_directory(in("/x/y")));
    EXPECT_EQ(_scc_dir_create(in("//x///y//").c_str()), 0U);
    EXPECT_EQ(_scc_dir_create("/"), 0U);
    EXPECT_EQ(_scc_dir_create("//"), 0U);
}

TEST_F(DirCreate, RefusesANullPathAndOneThatIsNeitherAbsoluteNorBelowTheWorkingDirectory) {
    fs::current_path(directory.path());
    EXPECT_EQ(_scc_dir_create(nullptr), 22U);
    for (const char* path : {"tmp/x", "", ".", "./", "..", "../x", ".x/y", "~/x"}) {
        EXPECT_EQ(_scc_dir_create(path), 20U) << path;
    }
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST_F(DirCreate, APathBelowTheWorkingDirectoryIsMadeThere) {
    fs::current_path(directory.path());
    EXPECT_EQ(_scc_dir_create("./r/s"), 0U);
    EXPECT_TRUE(fs::is_directory(in("/r/s")));
    EXPECT_EQ(_scc_dir_create("./r/s"), 0U);
}

TEST_F(DirCreate, ARelativePathMustFitAfterTheWorkingDirectory) {
    const std::string here = enter_directory_of_length(60);
    // 108 - 60 = 48 characters do not fit, 47 do.
    EXPECT_EQ(_scc_dir_create(("./" + std::string(46, 'n')).c_str()), 28U);
    EXPECT_TRUE(fs::is_empty(here));
    EXPECT_EQ(_scc_dir_create(("./" + std::string(45, 'y')).c_str()), 0U);
    EXPECT_TRUE(fs::is_directory(here + "/" + std::string(45, 'y')));
}

TEST_F(DirCreate, AWorkingDirectoryThatDoesNotFitIsUnknown) {
    enter_directory_of_length(108);
    EXPECT_EQ(_scc_dir_create("./x"), 2U);
}

TEST_F(DirCreate, AWorkingDirectoryThatWasRemovedIsUnknown) {
    fs::create_directory(in("/gone"));
    fs::current_path(in("/gone"));
    fs::remove(in("/gone"));
    EXPECT_EQ(_scc_dir_create("./x"), 2U);
}

TEST_F(DirCreate, AnAbsolutePathIsCutTo107Characters) {
    const std::string base = in("/");
    const std::string name(150, 'z');
    EXPECT_EQ(_scc_dir_create((base + name).c_str()), 0U);
    EXPECT_TRUE(fs::is_directory(base + name.substr(0, 107 - base.size())));
}

TEST_F(DirCreate, PassesTheErrorOfTheSystemOnAndKeepsWhatWasMade) {
    fs::create_directory(in("/made"));
    std::ofstream(in("/made/file")) << "in the way";
    // A file in place of a last component is an existing name, in the middle it is no directory.
    EXPECT_EQ(_scc_dir_create(in("/made/file/below").c_str()), static_cast<std::uint32_t>(ENOTDIR));
    EXPECT_EQ(_scc_dir_create("/proc/self/nothing/below"), static_cast<std::uint32_t>(ENOENT));
    EXPECT_TRUE(fs::is_directory(in("/made")));
}

// ---- the instance number ------------------------------------------------------------------------------

TEST(InstanceNumber, IsTheNumberAfterTheLastSlash) {
    struct row {
        const char* root;
        std::uint32_t number;
    };
    const row rows[] = {{"/tmp/3", 3},   {"/tmp/", 0},    {"/tmp/vsd", 0},  {"/tmp/12abc", 12},
                        {"/1/2/34", 34}, {"/", 0},        {"/007", 7},      {"/tmp/-1", 0xFFFFFFFFU},
                        {"/tmp/3/", 0},  {"/tmp/ 5", 5},  {"/tmp/010", 10}, {"/tmp/8x", 8},
                        {"/tmp/09", 9},  {"/tmp/0x10", 0}};
    for (const row& row : rows) {
        setenv("TMPDIR", row.root, 1);
        EXPECT_EQ(_scc_vsd_id_get(), row.number) << row.root;
        EXPECT_EQ(_scc_lib_vsd_id_get(), row.number) << row.root;
    }
}

TEST(InstanceNumber, IsZeroWithoutTheVariableAndForTheLibraryWithoutASlash) {
    unsetenv("TMPDIR");
    EXPECT_EQ(_scc_vsd_id_get(), 0U);
    EXPECT_EQ(_scc_lib_vsd_id_get(), 0U);
    setenv("TMPDIR", "17", 1);
    EXPECT_EQ(_scc_lib_vsd_id_get(), 0U);
    EXPECT_EQ(_scc_vsd_id_get(), 17U);
}

// ---- the process's name -------------------------------------------------------------------------------

std::string own_name() {
    std::string name;
    std::getline(std::ifstream("/proc/self/cmdline"), name, '\0');
    return name;
}

TEST(ProcessName, IsTheWholeFirstArgumentAndTheRestIsZeroed) {
    char name[512];
    std::memset(name, 0xEE, sizeof name);
    ASSERT_EQ(_scc_process_name_get(getpid(), name, sizeof name), 0U);
    const std::string expected = own_name();
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(std::string(name), expected);
    for (std::size_t i = expected.size(); i < sizeof name; ++i) {
        EXPECT_EQ(name[i], '\0') << i;
    }
}

TEST(ProcessName, LeavesNothingOfTheOtherArguments) {
    const test::child_process child("/bin/sleep", {"60", "0"});
    char name[64];
    // Until the child runs its program it has the name of this one.
    for (int tries = 0; tries < 20000; ++tries) {
        std::memset(name, 0xEE, sizeof name);
        ASSERT_EQ(_scc_process_name_get(child.pid(), name, sizeof name), 0U);
        if (std::string(name) == "/bin/sleep") {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(std::string(name, sizeof name), "/bin/sleep" + std::string(sizeof name - 10, '\0'));
}

TEST(ProcessName, IsCutToTheBuffer) {
    const std::string expected = own_name();
    ASSERT_GT(expected.size(), 5U);
    char name[8];
    std::memset(name, 0x55, sizeof name);
    ASSERT_EQ(_scc_process_name_get(getpid(), name, 6), 0U);
    EXPECT_EQ(std::string(name), expected.substr(0, 5));
    EXPECT_EQ(name[6], 0x55);
    ASSERT_EQ(_scc_process_name_get(getpid(), name, 1), 0U);
    EXPECT_STREQ(name, "");
}

TEST(ProcessName, RefusesNoBufferAndNoSize) {
    char name[8] = "before";
    EXPECT_EQ(_scc_process_name_get(getpid(), nullptr, 8), 22U);
    EXPECT_EQ(_scc_process_name_get(getpid(), name, 0), 22U);
    EXPECT_EQ(_scc_process_name_get(getpid(), name, -1), 22U);
    EXPECT_STREQ(name, "before");
}

TEST(ProcessName, OfAProcessThatIsNotThereIsTheErrorAndAnEmptyName) {
    char name[8] = "before";
    EXPECT_EQ(_scc_process_name_get(0x7FFFFFFF, name, sizeof name), 2U);
    EXPECT_EQ(std::string(name, sizeof name), std::string(8, '\0'));
}

// Like a kernel thread: a child that has ended but has not been waited for.
TEST(ProcessName, OfAProcessWithoutArgumentsIsEmpty) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    char name[8] = "before";
    EXPECT_EQ(_scc_process_name_get(child, name, sizeof name), 0U);
    EXPECT_EQ(std::string(name, sizeof name), std::string(8, '\0'));
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

// ---- the service id counter ---------------------------------------------------------------------------

TEST(ServiceIdCounter, BeginsAtZeroAndBothNamesReadTheSameValue) {
    for (std::uint32_t expected = 0; expected < 5; ++expected) {
        EXPECT_EQ(_get_get_avail_svrid(), expected);
        EXPECT_EQ(_scc_get_cur_svrid(), expected);
        _scc_svrid_inc();
    }
}

// ---- ends of buffers and descriptors --------------------------------------------------------------------

TEST_F(MakePath, CopiesNothingThatFollowsTheSuffix) {
    const char suffix[] = {'/', 'a', '\0', 'Z'};
    buffer[9] = '#';
    EXPECT_EQ(scc_make_path(buffer, suffix, 108, 1), 1);
    EXPECT_STREQ(buffer, "/tmp/3/a");
    EXPECT_EQ(buffer[9], '#');
}

TEST_F(MakePath, AnEmptyPathFitsIntoOneByte) {
    setenv("TMPDIR", "", 1);
    EXPECT_EQ(scc_make_path(buffer, "", 1, 1), 1);
    EXPECT_STREQ(buffer, "");
}

TEST(InstanceNumber, OfAVariableWithoutASlashIsDecimal) {
    setenv("TMPDIR", "012", 1);
    EXPECT_EQ(_scc_vsd_id_get(), 12U);
}

TEST(ProcessName, OfAnEndedChildThatNobodyWaitedForIsEmpty) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    char name[16] = "something else";
    EXPECT_EQ(_scc_process_name_get(child, name, sizeof name), 0U);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(ProcessName, ReadingItKeepsNoDescriptor) {
    const int next = dup(STDIN_FILENO);
    close(next);
    char name[16];
    EXPECT_EQ(_scc_process_name_get(getpid(), name, sizeof name), 0U);
    EXPECT_EQ(dup(STDIN_FILENO), next);
}

TEST_F(DirCreate, ReadsNothingPastARelativePath) {
    const test::guarded_bytes path(test::wire().text("./abc").u8(0));
    EXPECT_EQ(_scc_dir_create(reinterpret_cast<const char*>(path.data())), 0U);
}

}  // namespace
