// The table of clients that is refreshed in place.
#include "ctl_terminal.h"

namespace ctl_test {
namespace {

class CtlTop : public with_daemon {};
class CtlTopAlone : public without_daemon {};

// The words of the line of an application; none if it is not listed.
std::vector<std::string> line_of(const std::string& table, const std::string& app) {
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
        if (!all.empty() && all[0] == app) {
            return all;
        }
    }
    return {};
}

TEST_F(CtlTop, ListsAClientWithItsPendingRequests) {
    ASSERT_EQ(run({"daemon", "mute", "type=addr-learning", "count=2"}).status, 0);
    process shell(SCCCTL_PATH, {"shell", "--app", "7", "--timeout", long_enough_to_register}, directory());
    shell.write("addr-learning 3 on\naddr-learning 4 on\nstrerror 2005\n");
    ASSERT_EQ(shell.line(), "strerror: specific acl not exist");

    const finished plain = run({"top", "--count", "2", "--interval", "0.1"});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output.find('\x1b'), std::string::npos);  // no terminal, no escapes
    const auto words = line_of(plain.output, "7");
    ASSERT_EQ(words.size(), 9u) << plain.output;
    EXPECT_EQ(words[2], "-");  // no rate in the first table
    EXPECT_EQ(words[5], "2");  // pending
    EXPECT_EQ(words[7], "2");  // received: the requests; the registrations came from nobody yet
    shell.end_input();
    EXPECT_EQ(shell.finish(), 3);
    EXPECT_EQ(line_of(run({"top", "--count", "1"}).output, "7"), std::vector<std::string>());
}

TEST_F(CtlTop, RestoresTheTerminalWhenItEnds) {
    terminal top(SCCCTL_PATH, {"top", "--interval", "60"}, directory());
    top.until("\x1b[?1049h");
    top.until("PENDING");
    top.type("q");
    EXPECT_EQ(top.finish(), 0);
    EXPECT_NE(top.rest().find("\x1b[?25h\x1b[?1049l"), std::string::npos) << top.rest();
}

TEST_F(CtlTop, RestoresTheTerminalWhenTheDaemonGoes) {
    terminal top(SCCCTL_PATH, {"top", "--interval", "0.1"}, directory());
    top.until("PENDING");
    daemon().signal(SIGKILL);
    top.until("\x1b[?1049l");
    top.until("sccctl: top: no daemon at ");
    EXPECT_EQ(top.finish(), 3);
}

TEST_F(CtlTopAlone, SaysAtOnceThatThereIsNoDaemon) {
    const finished result = run({"top"});
    EXPECT_EQ(result.status, 3);
    EXPECT_TRUE(result.errors.ends_with("start one with sccd-dev\n")) << result.errors;
}

}  // namespace
}  // namespace ctl_test
