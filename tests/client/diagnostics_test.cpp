// The debug switch with its file and its command, the statistics table, and the timing probes.
#include "client/diagnostics.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/log.h"
#include "support/hidden_variable.h"
#include "support/registered_client.h"
#include "support/temp_dir.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

using texts = std::vector<std::string>;

class SwitchFile : public ::testing::Test {
  protected:
    void write(const std::string& content) {
        make_directory();
        std::ofstream(file()) << content;
    }

    std::string file() const { return directory.path() + "/security/scc/scclib_dbg.txt"; }

    // Creates only the directory, for a file of another kind.
    void make_directory() { std::filesystem::create_directories(directory.path() + "/security/scc"); }

    // The flag of this process after the file has been read, from 0 or 1 before.
    static int flag_from(std::uint8_t before, const char* process) {
        scc_lib_debug.store(before);
        _scc_lib_debug_init(process);
        const int after = scc_lib_debug.load();
        scc_lib_debug.store(0);
        return after;
    }

    void expect_unchanged(const char* process) {
        EXPECT_EQ(flag_from(0, process), 0) << process;
        EXPECT_EQ(flag_from(1, process), 1) << process;
    }

    void expect_set_to(int value, const char* process) {
        EXPECT_EQ(flag_from(0, process), value) << process;
        EXPECT_EQ(flag_from(1, process), value) << process;
    }

    test::temp_dir directory;
};

TEST_F(SwitchFile, OneSwitchesOnAndZeroSwitchesOff) {
    write("dot1x   1\nportsec   0\n");
    expect_set_to(1, "dot1x");
    expect_set_to(0, "portsec");
}

TEST_F(SwitchFile, OnlyExactlyOneSwitchesOn) {
    write("two   2\nminus   -1\neleven   11\nbig   257\nhundred   100\n");
    for (const char* process : {"two", "minus", "eleven", "big", "hundred"}) {
        expect_set_to(0, process);
    }
}

TEST_F(SwitchFile, TheNameIsComparedWithoutRegardToCase) {
    write("DOT1X   1\nPortSec   1\n");
    expect_set_to(1, "dot1x");
    expect_set_to(1, "PORTSEC");
}

TEST_F(SwitchFile, AnyAmountOfWhiteSpaceSeparatesNameAndNumber) {
    write("one 1\ntab\t1\n   leading      1   \nsquare \t  1");
    for (const char* process : {"one", "tab", "leading", "square"}) {
        expect_set_to(1, process);
    }
}

TEST_F(SwitchFile, TheNameIsTheWholeFirstArgumentNotItsLastComponent) {
    write("dot1x   1\n/sbin/portsec   1\n");
    expect_unchanged("/sbin/dot1x");
    expect_unchanged("portsec");
    expect_set_to(1, "/sbin/portsec");
    expect_unchanged("dot1");
    expect_unchanged("dot1xx");
}

TEST_F(SwitchFile, ALineOfThreeCharactersWithItsNewlineIsIgnored) {
    write("a1\nb 1");
    expect_unchanged("a1");
    expect_unchanged("b");
    write("a 1\n");
    expect_set_to(1, "a");
}

TEST_F(SwitchFile, TheFirstLineForANameCounts) {
    write("dot1x   0\ndot1x   1\nweb   1\nWEB   0\n");
    expect_set_to(0, "dot1x");
    expect_set_to(1, "web");
}

TEST_F(SwitchFile, ANameOfThirtyOneCharactersIsRead) {
    const std::string name(31, 'n');
    write(name + "   1\n");
    expect_set_to(1, name.c_str());
}

TEST_F(SwitchFile, ANameOfThirtyTwoCharactersNeverMatches) {
    const std::string name(32, 'n');
    write(name + "   1\n");
    expect_unchanged(name.c_str());
}

TEST_F(SwitchFile, ALongLineIsReadInPiecesOfOneHundredAndSevenCharacters) {
    write(std::string(107, '#') + "dot1x   1\n");
    expect_set_to(1, "dot1x");
}

TEST_F(SwitchFile, EmptyLinesAndOtherNamesAreSteppedOver) {
    write("\n\n# comment line\nweb   0\n\ndot1x   1\n");
    expect_set_to(1, "dot1x");
}

TEST_F(SwitchFile, ALineWithoutANumberDecidesNothing) {
    write("dot1x\ndot1x   on\n   1\ndot1x   1\nweb\n");
    expect_set_to(1, "dot1x");
    expect_unchanged("web");
}

TEST_F(SwitchFile, WhatFollowsTheNumberIsNotRead) {
    write("dot1x   1 0\nweb   1x\n");
    expect_set_to(1, "dot1x");
    expect_set_to(1, "web");
}

TEST_F(SwitchFile, WithoutAMatchingLineOrAFileTheFlagStays) {
    expect_unchanged("dot1x");
    write("");
    expect_unchanged("dot1x");
    write("web   1\n");
    expect_unchanged("dot1x");
}

TEST_F(SwitchFile, ItsNumbersAreDecimalAlsoWithLeadingZeros) {
    write("octal   010\none   01\nhex   0x1\nplus   +1\n");
    expect_set_to(0, "octal");
    expect_set_to(1, "one");
    expect_set_to(0, "hex");
    expect_set_to(1, "plus");
}

// With its newline it has 108 characters: the newline is read as a line of its own and has no effect.
TEST_F(SwitchFile, ALineOfExactlyOneHundredAndSevenCharactersIsReadWhole) {
    write("dot1x" + std::string(101, ' ') + "1\nweb   1\n");
    expect_set_to(1, "dot1x");
    expect_set_to(1, "web");
    write("dot1x" + std::string(102, ' ') + "1\nweb   1\n");
    expect_unchanged("dot1x");
    expect_set_to(1, "web");
}

TEST_F(SwitchFile, TheLastLineNeedsNoNewline) {
    write("web   0\ndot1x   1");
    expect_set_to(1, "dot1x");
}

// Anyone who may write to the directory may put something else there.
TEST_F(SwitchFile, AFifoIsIgnoredWithoutWaitingForAWriter) {
    make_directory();
    ASSERT_EQ(mkfifo(file().c_str(), 0666), 0);
    expect_unchanged("dot1x");
}

TEST_F(SwitchFile, AFifoThatHasAWriterIsIgnored) {
    make_directory();
    ASSERT_EQ(mkfifo(file().c_str(), 0666), 0);
    const int writer = open(file().c_str(), O_RDWR | O_CLOEXEC);
    const std::string line = "dot1x   1\ndot1x   1\n";
    ASSERT_EQ(::write(writer, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    EXPECT_EQ(flag_from(0, "dot1x"), 0);
    close(writer);
}

TEST_F(SwitchFile, ADirectoryIsIgnored) {
    std::filesystem::create_directories(file());
    expect_unchanged("dot1x");
}

TEST_F(SwitchFile, ASocketIsIgnored) {
    make_directory();
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    file().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    expect_unchanged("dot1x");
    close(listener);
}

TEST_F(SwitchFile, ALinkIsIgnored) {
    make_directory();
    std::ofstream(directory.path() + "/elsewhere") << "dot1x   1\n";
    std::filesystem::create_symlink(directory.path() + "/elsewhere", file());
    EXPECT_EQ(flag_from(0, "dot1x"), 0);
}

TEST_F(SwitchFile, NoDescriptorIsLeftOpen) {
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator descriptors("/proc/self/fd");
        return std::distance(begin(descriptors), end(descriptors));
    };
    const auto before = open_descriptors();
    write("dot1x   1\n");
    expect_set_to(1, "dot1x");
    std::filesystem::remove(file());
    std::filesystem::create_directory(file());
    expect_unchanged("dot1x");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SwitchFile, WithoutAProcessNameNothingHappens) {
    write("dot1x   1\n");
    unsetenv("DATA_QXOS_DIR");
    test::clear_log();
    expect_unchanged(nullptr);
    EXPECT_TRUE(test::captured_log().empty());
}

TEST_F(SwitchFile, AnUnsetVariableIsReportedAtLevelFiveWhateverTheSwitchSays) {
    unsetenv("DATA_QXOS_DIR");
    test::clear_log();
    expect_unchanged("dot1x");
    const std::vector<test::log_line> lines = test::captured_log();
    ASSERT_EQ(lines.size(), 2U);
    for (const test::log_line& line : lines) {
        EXPECT_EQ(line.level, 5);
        EXPECT_EQ(line.module, "SCC");
        EXPECT_EQ(line.submodule, "INIT");
        EXPECT_EQ(line.flag, 1);
        EXPECT_EQ(line.whole, "sccd create tmp dir error.\n");
    }
}

TEST_F(SwitchFile, APathThatDoesNotFitIsReportedTheSameWay) {
    // The suffix has 28 characters: 79 before it still fit into 107, 80 do not.
    test::clear_log();
    setenv("DATA_QXOS_DIR", ("/" + std::string(78, 'd')).c_str(), 1);
    expect_unchanged("dot1x");
    EXPECT_TRUE(test::captured_log().empty());
    setenv("DATA_QXOS_DIR", ("/" + std::string(79, 'd')).c_str(), 1);
    expect_unchanged("dot1x");
    EXPECT_EQ(test::captured_log().size(), 2U);
}

using RegisteredSwitch = test::registered_client;

TEST_F(RegisteredSwitch, IsReadAtRegistrationForTheProcesssFirstArgument) {
    // The name that the kernel shows is the memory of the first argument.
    ASSERT_GT(std::strlen(program_invocation_name), 8U);
    std::strcpy(program_invocation_name, "./dot1xd");
    std::ofstream(daemon.directory().runtime() + "/scclib_dbg.txt") << "dot1xd   0\n./DOT1XD   1\n";
    start();
    EXPECT_EQ(scc_lib_debug.load(), 1);
    EXPECT_STREQ(g_scc_client_cb.process_name, "./dot1xd");
    stop();
}

TEST_F(RegisteredSwitch, StaysAsItIsAcrossAnUnregistration) {
    start();
    daemon.send_item(side::async, 206, wire().zeros(24).u32(1).zeros(4).u32(1));
    EXPECT_TRUE(test::wait_for_log("scclib debug open."));
    stop();
    EXPECT_EQ(scc_lib_debug.load(), 1);
    scc_lib_debug.store(0);
}

// ---- the debug command -------------------------------------------------------------------------------

bytes command(std::uint32_t number, std::uint32_t value) {
    return wire().fill(24, 0xEE).u32(value).fill(4, 0xEE).u32(number);
}

TEST(DebugCommand, OpeningLogsAfterTheSwitch) {
    test::clear_log();
    _scc_lib_dbg_proc(command(1, 1).data());
    EXPECT_EQ(scc_lib_debug.load(), 1);
    const std::vector<test::log_line> lines = test::captured_log();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, "scclib debug open.");
}

TEST(DebugCommand, ClosingLogsInFrontOfTheSwitchForAnyValueButOne) {
    for (const std::uint32_t value : {0U, 2U, 0xFFFFFFFFU, 0x01000000U, 0x101U}) {
        const test::debugging on;
        _scc_lib_dbg_proc(command(1, value).data());
        EXPECT_EQ(scc_lib_debug.load(), 0);
        EXPECT_EQ(test::log_texts(), texts{"scclib debug close."});
    }
}

TEST(DebugCommand, ClosingWhileClosedLogsNothing) {
    test::clear_log();
    _scc_lib_dbg_proc(command(1, 0).data());
    EXPECT_TRUE(test::captured_log().empty());
}

TEST(DebugCommand, OtherCommandsAreUnknownAndChangeNothing) {
    for (const std::uint32_t number : {0U, 2U, 4U, 0x101U, 0xFFFFFFFFU}) {
        for (const std::uint32_t value : {0U, 1U}) {
            const test::debugging on;
            _scc_lib_dbg_proc(command(number, value).data());
            EXPECT_EQ(scc_lib_debug.load(), 1);
            EXPECT_EQ(test::log_texts(), texts{"unknown debug cmd."});
        }
    }
}

TEST(DebugCommand, WithoutAValueDoesNothing) {
    const test::debugging on;
    _scc_lib_dbg_proc(nullptr);
    EXPECT_TRUE(test::captured_log().empty());
    EXPECT_EQ(scc_lib_debug.load(), 1);
}

TEST(DebugCommand, ThreeShowsTheCacheFromOffset36AlsoWhileTheSwitchIsOff) {
    test::clear_log();
    const bytes value = wire().add(command(3, 0)).u32(3);
    _scc_lib_dbg_proc(value.data());
    ASSERT_FALSE(test::captured_log().empty());
    EXPECT_EQ(test::log_texts().front(), "================== scclib all acl info ===================");
    EXPECT_EQ(scc_lib_debug.load(), 0);
}

TEST(DebugCommand, ReadsAnUnalignedValue) {
    const bytes shifted = wire().u8(0).add(command(1, 1));
    _scc_lib_dbg_proc(shifted.data() + 1);
    EXPECT_EQ(scc_lib_debug.load(), 1);
}

TEST(DebugCommand, FitsWhenEverythingItReadsIsThere) {
    const auto fits = [](const bytes& value) { return scc::debug_command_fits(value.data(), value.size()); };
    EXPECT_FALSE(fits(bytes(35)));
    EXPECT_TRUE(fits(command(1, 1)));
    EXPECT_TRUE(fits(command(9, 1)));
    EXPECT_FALSE(fits(command(3, 0)));
    EXPECT_FALSE(fits(wire().add(command(3, 0)).zeros(3)));
    EXPECT_TRUE(fits(wire().add(command(3, 0)).u32(1)));
    EXPECT_TRUE(fits(wire().add(command(3, 0)).u32(3)));
    EXPECT_FALSE(fits(wire().add(command(3, 0)).u32(2)));
    EXPECT_FALSE(fits(wire().add(command(3, 0)).u32(2).zeros(11)));
    EXPECT_TRUE(fits(wire().add(command(3, 0)).u32(2).zeros(12)));
}

TEST(DebugLog, EachLineIsLevelSevenWithThePrefixOfFunctionAndLine) {
    const test::debugging on;
    _scc_lib_dbg_proc(command(7, 0).data());
    const std::vector<test::log_line> lines = test::captured_log();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, 7);
    EXPECT_EQ(lines[0].module, "SCCLIB");
    EXPECT_EQ(lines[0].submodule, "DETAIL");
    EXPECT_EQ(lines[0].flag, 2);
    // "<%-23s line:%-4d> ": the name filled up to 23 columns, the line number up to 4.
    EXPECT_EQ(lines[0].whole.substr(0, 30), "<_scc_lib_dbg_proc       line:");
    EXPECT_EQ(lines[0].whole.find("> "), 34U);
    EXPECT_EQ(lines[0].whole.substr(36), "unknown debug cmd.");
}

// ---- the statistics ----------------------------------------------------------------------------------

TEST(Statistics, EachCountingFunctionRaisesItsOwnColumnsOfItsOwnEntry) {
    ASSERT_EQ(g_scclib_stat.size(), 13U);
    ASSERT_EQ(sizeof g_scclib_stat, 13U * 20U);
    for (std::uint32_t i = 0; i < 13; ++i) {
        _scc_lib_func_stat_reset();
        for (std::uint32_t n = 0; n < 1 + i; ++n) {
            _scc_lib_func_call_succ(i);
        }
        _scc_lib_func_call_fail(i);
        _scc_lib_func_cb_succ(i);
        _scc_lib_func_cb_succ(i);
        _scc_lib_func_cb_fail(i);
        // In memory: calls, callback successes, call successes, callback failures, call failures.
        std::uint32_t words[65];
        std::memcpy(words, g_scclib_stat.data(), sizeof words);
        for (std::uint32_t w = 0; w < 65; ++w) {
            const std::uint32_t expected[] = {2 + i, 2, 1 + i, 1, 1};
            EXPECT_EQ(words[w], w / 5 == i ? expected[w % 5] : 0) << "word " << w << " entry " << i;
        }
    }
    _scc_lib_func_stat_reset();
    for (std::uint32_t i = 0; i < 13; ++i) {
        EXPECT_EQ(test::record_bytes(scc::read_statistics(i)), bytes(20));
    }
}

TEST(Statistics, CountOnFourThreadsWithoutLosingOne) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int n = 0; n < 1000; ++n) {
                _scc_lib_func_call_succ(12);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(scc::read_statistics(12).calls, 4000U);
    EXPECT_EQ(scc::read_statistics(12).call_successes, 4000U);
}

// ---- the timing probes -------------------------------------------------------------------------------

std::uint32_t clock_us() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

TEST(Probes, AreFiftyThreeOfSixWordsAndSwitchedOffAtFirst) {
    EXPECT_EQ(sizeof g_scc_perf, 53U * 24U);
    EXPECT_EQ(g_scc_perf_debug, 0);
    for (std::uint32_t i = 0; i < 53; ++i) {
        scc_time_elapse_start(i);
        scc_time_elapse_end(i);
        EXPECT_EQ(test::record_bytes(g_scc_perf[i]), bytes(24)) << i;
    }
}

TEST(Probes, BeyondTheLastAreNotTouched) {
    g_scc_perf_debug = 1;
    for (const std::uint32_t beyond : {53U, 54U, 0xFFFFFFFFU}) {
        scc_time_elapse_start(beyond);
        scc_time_elapse_end(beyond);
    }
    for (const scc_perf_entry& entry : g_scc_perf) {
        EXPECT_EQ(test::record_bytes(entry), bytes(24));
    }
}

TEST(Probes, StartTakesTheTimeAndNothingElse) {
    g_scc_perf_debug = 1;
    const std::uint32_t before = clock_us();
    scc_time_elapse_start(52);
    const std::uint32_t after = clock_us();
    EXPECT_LE(g_scc_perf[52].start - before, after - before);
    g_scc_perf[52].start = 0;
    EXPECT_EQ(test::record_bytes(g_scc_perf[52]), bytes(24));
}

TEST(Probes, EndCountsAndKeepsLastMaximumAndTotal) {
    g_scc_perf_debug = 255;
    scc_perf_entry& probe = g_scc_perf[3];
    scc_time_elapse_start(3);
    scc_time_elapse_end(3);
    EXPECT_EQ(probe.count, 1U);
    EXPECT_EQ(probe.last, probe.end - probe.start);
    EXPECT_EQ(probe.total, probe.last);
    EXPECT_EQ(probe.max, probe.last);
    const std::uint32_t first = probe.last;
    probe.max = 0x80000000U;
    scc_time_elapse_start(3);
    scc_time_elapse_end(3);
    EXPECT_EQ(probe.count, 2U);
    EXPECT_EQ(probe.total, first + probe.last);
    EXPECT_EQ(probe.max, 0x80000000U) << "a shorter time replaced the maximum";
}

TEST(Probes, EndWithoutAStartMeasuresFromZero) {
    g_scc_perf_debug = 1;
    scc_time_elapse_end(0);
    EXPECT_EQ(g_scc_perf[0].start, 0U);
    EXPECT_EQ(g_scc_perf[0].last, g_scc_perf[0].end);
    EXPECT_EQ(g_scc_perf[0].max, g_scc_perf[0].end);
}

TEST(Probes, ElapsedTimesWrapAtThirtyTwoBits) {
    g_scc_perf_debug = 1;
    const std::uint32_t before = clock_us();
    g_scc_perf[1].start = before - 0x70000000U;
    g_scc_perf[1].total = 0xFFFFFFFFU;
    scc_time_elapse_end(1);
    const std::uint32_t waited = clock_us() - before;
    EXPECT_LE(g_scc_perf[1].last - 0x70000000U, waited);
    EXPECT_EQ(g_scc_perf[1].total, g_scc_perf[1].last - 1);
}

// ---- descriptors and paths of a host that has changed them

TEST_F(SwitchFile, IsReadThroughDescriptorZeroToo) {
    write("dot1x   1\n");
    const int input = dup(STDIN_FILENO);
    ASSERT_EQ(close(STDIN_FILENO), 0);
    EXPECT_EQ(flag_from(0, "dot1x"), 1);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "descriptor 0 was left open";
    dup2(input, STDIN_FILENO);
    close(input);
}

// Nothing is called in between, so what the first start left on the stack is there.
TEST_F(SwitchFile, OfAnEarlierStartIsNotReadOnceTheVariableIsGone) {
    write("dot1x   1\n");
    test::hidden_variable variable("DATA_QXOS_DIR");
    _scc_lib_debug_init("dot1x");
    const std::uint8_t first = scc_lib_debug.exchange(0);
    variable.hide();
    _scc_lib_debug_init("dot1x");
    const std::uint8_t second = scc_lib_debug.exchange(0);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

}  // namespace
