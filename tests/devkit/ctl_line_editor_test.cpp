// The shell on a terminal: editing, history, completion and interrupts.
#include <filesystem>

#include "ctl_terminal.h"

namespace ctl_test {
namespace {

constexpr const char* interrupt = "\x03";
constexpr const char* up = "\x1b[A";
constexpr const char* end_of_input = "\x04";

class CtlLineEditor : public with_daemon {};

TEST_F(CtlLineEditor, AnInterruptEndsTheLineAndNotTheShell) {
    terminal shell(SCCCTL_PATH, {"shell"}, directory());
    shell.until("sccctl> ");
    shell.type("acl create 7");
    shell.until("acl create 7");
    shell.type(interrupt);
    shell.until("sccctl> ");
    shell.type("strerror 2006\r");
    shell.until("no-ace (2006)");
    shell.until("sccctl> ");
    shell.type("exit\r");
    EXPECT_EQ(shell.finish(), 0);
    EXPECT_EQ(run({"daemon", "acls", "--json"}).json_lines().at(0)["acls"].size(), 0u);
}

TEST_F(CtlLineEditor, AnInterruptEndsTheWaitForAResult) {
    ASSERT_EQ(run({"daemon", "mute", "type=addr-learning"}).status, 0);
    terminal shell(SCCCTL_PATH, {"shell", "--timeout", "600"}, directory());
    shell.until("sccctl> ");
    shell.type("addr-learning 3 on\r");
    while (run({"clients", "--json"}).json_lines().at(0)["clients"].empty() ||
           run({"daemon", "metrics", "--json"}).json_lines().at(0)["requests"].empty()) {
        continue;
    }
    while (run({"daemon", "metrics", "--json"}).output.find("addr-learning") == std::string::npos) {
        continue;
    }
    shell.type(interrupt);
    shell.until("addr-learning: interrupted");
    shell.until("sccctl> ");
    shell.type(end_of_input);
    EXPECT_EQ(shell.finish(), 3);
}

TEST_F(CtlLineEditor, CompletesAWordAndListsSeveral) {
    terminal shell(SCCCTL_PATH, {"shell"}, directory());
    shell.until("sccctl> ");
    shell.type("acl resh\x7f\t");
    shell.until("equence ");  // the editor writes what changes
    shell.type(interrupt);
    shell.until("sccctl> ");
    shell.type("acl cl\t1 --ty\t");
    shell.until("ass ");
    shell.until("pe ");
    shell.type(interrupt);
    shell.until("sccctl> ");
    shell.type("acl show\t\t");
    shell.until("show  show-ace");
}

TEST_F(CtlLineEditor, KeepsItsHistoryForTheNextShell) {
    {
        terminal shell(SCCCTL_PATH, {"shell"}, directory());
        shell.until("sccctl> ");
        shell.type("strerror 2007\r");
        shell.until("format (2007)");
        shell.until("sccctl> ");
        shell.type(end_of_input);
        EXPECT_EQ(shell.finish(), 0);
    }
    EXPECT_EQ(std::filesystem::status(file(".sccctl_history")).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    terminal shell(SCCCTL_PATH, {"shell"}, directory());
    shell.until("sccctl> ");
    shell.type(up);
    shell.until("strerror 2007");
    shell.type("\r");
    shell.until("format (2007)");
}

TEST_F(CtlLineEditor, SetsTheTerminalBackHoweverTheShellEnds) {
    for (const char* typed : {"exit\r", end_of_input, "#SIGTERM", "#SIGHUP", "#SIGQUIT"}) {
        SCOPED_TRACE(typed);
        terminal shell(SCCCTL_PATH, {"shell"}, directory());
        shell.until("sccctl> ");
        EXPECT_FALSE(shell.is_set_for_lines());
        if (typed[0] != '#') {
            shell.type(typed);
        } else {
            const std::string name = typed + 1;
            shell.signal(name == "SIGTERM" ? SIGTERM : name == "SIGHUP" ? SIGHUP : SIGQUIT);
        }
        EXPECT_EQ(shell.finish(), 0);
        EXPECT_TRUE(shell.is_set_for_lines());
    }
}

TEST_F(CtlLineEditor, ReadsLinesAlsoWithEditingSwitchedOff) {
    (void)file(".editrc", "edit off\n");
    terminal shell(SCCCTL_PATH, {"shell"}, directory());
    shell.until("sccctl> ");
    EXPECT_TRUE(shell.is_set_for_lines());
    shell.type("strerror 2006\r");
    shell.until("no-ace (2006)");
    shell.type("exit\r");
    EXPECT_EQ(shell.finish(), 0);
}

}  // namespace
}  // namespace ctl_test
