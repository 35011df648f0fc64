// The log without libqx_syslog. syslog is replaced, so that nothing is written to the system's log.
#include "client/system_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

struct written_line {
    int priority;
    std::string text;
};

written_line g_written{-1, ""};

}  // namespace

extern "C" void syslog(int priority, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    g_written = {priority, text};
}

TEST(SystemLog, WritesModuleSubmoduleAndTextAtTheLevel) {
    EXPECT_EQ(printk_syslog_ext(7, "SCCLIB", "DETAIL", 2, "call %d of %s", 3, "seven"), 15);
    EXPECT_EQ(g_written.priority, LOG_USER | LOG_DEBUG);
    EXPECT_EQ(g_written.text, "SCCLIB/DETAIL: call 3 of seven");
}

TEST(SystemLog, DoesNotInterpretThePercentSignsOfAnArgument) {
    EXPECT_EQ(printk_syslog_ext(5, "SCC", "INIT", 1, "%s", "100%n"), 5);
    EXPECT_EQ(g_written.text, "SCC/INIT: 100%n");
}

TEST(SystemLog, CutsALongLineAndReturnsItsWholeLength) {
    const std::string longest(3000, 'x');
    EXPECT_EQ(printk_syslog_ext(7, "SCCLIB", "DETAIL", 2, "%s", longest.c_str()), 3000);
    EXPECT_EQ(g_written.text, "SCCLIB/DETAIL: " + std::string(1023, 'x'));
}

TEST(SystemLog, WritesAnEmptyLine) {
    EXPECT_EQ(printk_syslog_ext(5, "SCC", "INIT", 1, "%s", ""), 0);
    EXPECT_EQ(g_written.text, "SCC/INIT: ");
}

TEST(SystemLog, WritesNothingThatCannotBeFormatted) {
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ(printk_syslog_ext(5, "SCC", "INIT", 1, "%ls", no_character), -1);
    EXPECT_EQ(g_written.priority, -1);
}
