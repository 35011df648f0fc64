// How sccctl interprets its command line: shell lines, invalid lines, completion.
#include <algorithm>

#include "common/value_names.h"
#include "ctl_support.h"
#include "program.h"

namespace ctl_test {
namespace {

class CtlCommandLine : public with_daemon {};
class CtlCommandLineAlone : public without_daemon {};

TEST_F(CtlCommandLine, AShellGoesOnAfterABadLineAndEndsWithTheWorstStatus) {
    const finished result = run({"shell"},
                                "strerror 5 # a comment\n"
                                "no-such-command\n"
                                "acl delete 9\n"
                                "exit\n"
                                "strerror 6\n");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.errors.find("no-such-command"), std::string::npos);
    EXPECT_NE(result.errors.find("(2005)"), std::string::npos);
    EXPECT_EQ(result.output.find("code 6"), std::string::npos);
}

TEST_F(CtlCommandLine, AShellsLinesCannotChangeItsRegistration) {
    const finished result = run({"shell", "--json"},
                                "acl create 7 --app 3\n"
                                "clients --app 3\n"
                                "acl create '8\n"
                                "help acl create\n");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.output.find("--app belongs to the shell itself"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\"clients\":["), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("the quote ' is not closed"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Usage: sccctl acl create"), std::string::npos) << result.output;
    EXPECT_EQ(run({"daemon", "acls", "--json"}).json_lines().at(0)["acls"].size(), 0u);
}

TEST_F(CtlCommandLineAlone, AnswersALineItCannotParseInTheFormAskedFor) {
    for (const std::vector<std::string>& line : {std::vector<std::string>{"foo", "--json"},
                                                 {"acl", "create", "--json"},
                                                 {"--json", "acl", "create", "x"}}) {
        const finished result = run(line);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(result.json_lines().at(0)["command"], "usage");
    }
    EXPECT_TRUE(run({"foo"}).errors.starts_with("sccctl: usage: "));
    const finished help = run({"help", "acl", "create"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("Usage: sccctl acl create"), std::string::npos);
}

TEST_F(CtlCommandLineAlone, TellsWhatAnInvalidLineHoldsOrLacks) {
    const auto errors = [&](const std::vector<std::string>& line) { return run(line).errors; };
    EXPECT_EQ(errors({"nonsense", "3", "on"}), "sccctl: usage: no command 'nonsense'\n");
    EXPECT_EQ(errors({"addr-learn", "3", "on"}),
              "sccctl: usage: no command 'addr-learn'; did you mean 'addr-learning'?\n");
    EXPECT_EQ(errors({"clients", "x", "y"}), "sccctl: usage: not expected: x y\n");
    EXPECT_EQ(errors({"help", "nosuch"}), "sccctl: usage: no command 'nosuch'\n");
    EXPECT_EQ(errors({"help", "acl", "nosuch"}), "sccctl: usage: no command 'acl nosuch'\n");
    EXPECT_EQ(errors({"acl", "lod", "x"}), "sccctl: usage: no command 'acl lod'; did you mean 'load'?\n");
    EXPECT_TRUE(errors({"daemon", "nosuch"})
                    .starts_with("sccctl: usage: no command 'nosuch' of the daemon; there are clients, "));
    EXPECT_EQ(errors({"arpcheck", "--ipv6", "1.2.3.4"}),
              "sccctl: usage: ipv6: '1.2.3.4' is not an IPv6 address\n");
    EXPECT_EQ(errors({"arp-entry"}), "sccctl: usage: arp-entry: one of add, delete must follow\n");
}

TEST_F(CtlCommandLineAlone, RefusesEveryNumberOutOfItsRangeInOneForm) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"clients", "--app", "20"}, "--app: '20' is not a number from 1 to 19"},
        {{"clients", "--app", "1.5"}, "--app: '1.5' is not a number from 1 to 19"},
        {{"clients", "--option", "256"}, "--option: '256' is not a number from 0 to 255"},
        {{"clients", "--timeout", "0"}, "--timeout: '0' is not a number from 0.001 to 86400"},
        {{"watch", "--count", "1.5"}, "--count: '1.5' is not a number from 0 to 1000000000000000"},
        {{"acl", "list", "0"}, "acl: '0' is not a number from 1 to 32768"},
        {{"acl", "list", "--type", "59"}, "--type: '59' is not a number from 1 to 58"},
        {{"acl", "create", "0"}, "acl: '0' is not a number from 1 to 32768"},
        {{"arpcheck", "--field", "0:2=65536"},
         "field: '65536' in '0:2=65536' is not a number from 0 to 65535"},
        {{"direct-vlan-set", "1", "--vlans", "4096"},
         "vlans: '4096' in '4096' is not a number from 0 to 4095"}};
    for (const auto& [line, problem] : rows) {
        EXPECT_EQ(run(line).errors, "sccctl: usage: " + problem + "\n");
    }
}

TEST_F(CtlCommandLineAlone, ANumberWithALeadingZeroIsDecimal) {
    EXPECT_EQ(run({"strerror", "5", "--app", "010"}).status, 0);
    EXPECT_EQ(run({"strerror", "5", "--app", "019"}).status, 0);
}

TEST_F(CtlCommandLineAlone, HelpListsEveryNameOfANumber) {
    const auto expect_names = [this](const char* command, scc::devkit::value_names names) {
        const std::string help = run({command, "--help"}).output;
        std::string list = help.substr(std::min(help.find("\nNames of "), help.size()));
        list = list.substr(0, list.find(".\n")) + ",";
        for (const auto& [value, name] : names) {
            EXPECT_NE(list.find(" " + std::string(name) + ","), std::string::npos) << name << " in " << help;
        }
    };
    expect_names("nac-app-set", scc::devkit::names::nac_application);
    expect_names("strerror", scc::devkit::names::results);
}

class CtlBadUsage : public without_daemon, public testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(CtlBadUsage, HasExitStatusTwo) {
    const finished result = run(GetParam());
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.errors + result.output, "");
}

using words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(
    lines, CtlBadUsage,
    testing::Values(
        words{}, words{"no-such-command"}, words{"acl"}, words{"addr-learning"}, words{"addr-learning", "3"},
        words{"addr-learning", "3", "256"}, words{"addr-learning", "x", "1"},
        words{"addr-learning", "3", "1", "2"}, words{"addr-learning", "3", "1", "--bogus"},
        words{"acl", "create", "0"}, words{"acl", "create", "32769"},
        words{"acl", "create", "1", "--type", "59"}, words{"acl-global-eport-set", "0", "1"},
        words{"mac-query", "00:11:22:33:44"}, words{"dhcp-snooping-set", "--ifx", "3"},
        words{"dhcp-snooping-set", "--form", "11"}, words{"arpcheck", "--ip", "10.0.0"},
        words{"arpcheck", "--field", "736:1=1"}, words{"arpcheck", "--field", "0:3=1"},
        words{"arpcheck", "--field", "0:2=65536"}, words{"arpcheck", "--field", "nonsense"},
        words{"arpcheck", "--hex", "/proc/none"}, words{"efacl-ctrl"},
        words{"acl", "add-ace", "1", "10", "permit", "nothing"}, words{"clients", "--app", "20"},
        words{"debug", "maybe"}, words{"daemon", "mute", "type"}, words{"acl", "load", "/proc/none"},
        words{"acl", "load", "/"}, words{"efacl-ctrl", "--data", "/"}, words{"acl", "add-ace", "1"},
        words{"watch", "--seconds", "nan"}, words{"watch", "--seconds", "1e300"},
        words{"watch", "--count", "-1"}, words{"clients", "--timeout", "nan"},
        words{"strerror", "5", "--timeout", "0"}, words{"dirchn-host-set", "1", "2", "3", "4", "5"},
        words{"direct-vlan-set", "1", "--vlans", "4096"}, words{"direct-vlan-set", "1", "--vlans", "5,"},
        words{"direct-vlan-set", "1", "--vlans", "5-3"}, words{"metrics", "--json"},
        words{"metrics", "--format", "csv"}, words{"top", "--interval", "0"}, words{"capture"},
        words{"help", "nosuch"}, words{"daemon", "nosuch"}, words{"arpcheck", "--ipv6", "1.2.3.4"},
        words{"watch", "--where", "nosuch=1"}));

TEST(CtlShellWords, SplitAtBlanksJoinInQuotesAndEndAtComments) {
    using scc::ctl::shell_words;
    EXPECT_EQ(shell_words("a  b\tc"), (words{"a", "b", "c"}));
    EXPECT_EQ(shell_words("a 'b c' \"d'e\" ''"), (words{"a", "b c", "d'e", ""}));
    EXPECT_EQ(shell_words("a#b # c"), (words{"a#b"}));
    EXPECT_EQ(shell_words("  "), words{});
    EXPECT_THROW((void)shell_words("a 'b"), scc::ctl::usage_error);
}

}  // namespace
}  // namespace ctl_test
