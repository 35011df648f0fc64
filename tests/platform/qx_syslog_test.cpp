// The workstation's syslog entry point: what it returns, and the line on standard error.
#include <gtest/gtest.h>
#include <qx_syslog.h>

#include <cstdlib>
#include <functional>
#include <string>

namespace {

// What the call writes to standard error while the environment variable has that text.
std::string line_of(const char* to_stderr, const std::function<void()>& call) {
    setenv("QX_SYSLOG_STDERR", to_stderr, 1);
    testing::internal::CaptureStderr();
    call();
    std::string written = testing::internal::GetCapturedStderr();
    unsetenv("QX_SYSLOG_STDERR");
    return written;
}

TEST(QxSyslog, ReturnsTheLengthOfTheText) {
    EXPECT_EQ(printk_syslog_ext(7, "SCCLIB", "DETAIL", 2, "%s %d", "call", 12), 7);
    EXPECT_EQ(printk_syslog_ext(7, "SCCLIB", "DETAIL", 2, "%s", ""), 0);
}

TEST(QxSyslog, WritesALineWithModuleAndSubModuleToStandardErrorWhenAsked) {
    const std::string line = line_of(
        "1", [] { printk_syslog_ext(7, "SCCLIB", "DETAIL", 2, "<%-23s line:%-4d> %s", "here", 5, "text"); });
    EXPECT_EQ(line, "%SCCLIB-7-DETAIL: <here                    line:5   > text\n");
}

TEST(QxSyslog, AddsNoSecondEndOfLine) {
    EXPECT_EQ(line_of("1", [] { printk_syslog_ext(7, "A", "B", 2, "%s", "text\n"); }), "%A-7-B: text\n");
}

TEST(QxSyslog, WritesNothingToStandardErrorUnlessAsked) {
    EXPECT_EQ(line_of("", [] { printk_syslog_ext(7, "A", "B", 2, "%s", "text"); }), "");
    unsetenv("QX_SYSLOG_STDERR");
    testing::internal::CaptureStderr();
    printk_syslog_ext(7, "A", "B", 2, "%s", "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(QxSyslog, AcceptsNoNamesAndLevelsOutsideItsRange) {
    EXPECT_EQ(line_of("1", [] { EXPECT_EQ(printk_syslog_ext(99, nullptr, nullptr, 0, "%d", 1), 1); }),
              "%?-7-?: 1\n");
    EXPECT_EQ(printk_syslog_ext(-3, nullptr, nullptr, 0, "%d", 1), 1);
}

TEST(QxSyslog, CutsALongLineAndReturnsItsWholeLength) {
    const std::string text(5000, 'x');
    const std::string line =
        line_of("1", [&text] { EXPECT_EQ(printk_syslog_ext(7, "A", "B", 2, "%s", text.c_str()), 5000); });
    EXPECT_EQ(line, "%A-7-B: " + std::string(1023, 'x') + "\n");
}

TEST(QxSyslog, RefusesANullFormat) {
    const char* volatile format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(printk_syslog_ext(7, "A", "B", 2, format), -1);
#pragma GCC diagnostic pop
}

}  // namespace
