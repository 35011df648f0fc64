// The daemon's settings, state and faults as sccctl shows and orders them.
#include "ctl_support.h"

namespace ctl_test {
namespace {

using nlohmann::json;

class SccdDaemonCommands : public with_daemon {};

TEST_F(SccdDaemonCommands, SettingsAreShownByName) {
    ASSERT_EQ(run({"addr-learning", "3", "1"}).status, 0);
    ASSERT_EQ(run({"d1x-mac-move", "1"}).status, 0);

    const auto one = run({"daemon", "settings", "addr-learning", "--json"}).json_lines();
    const auto all = run({"daemon", "settings", "--json"}).json_lines();

    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0]["settings"], (json{{"addr-learning", {{{"ifx", 3}, {"enable", 1}}}}}));
    EXPECT_EQ(all.at(0)["settings"].size(), 2u);
}

TEST_F(SccdDaemonCommands, TheStateBeginsAnotherDaemon) {
    ASSERT_EQ(run({"acl", "create", "101", "--class", "1"}).status, 0);
    const auto before = run({"daemon", "state", "--json"}).json_lines().at(0)["state"];
    const std::string seed = file("seed.json", before.dump());
    ASSERT_EQ(run({"daemon", "quit"}).status, 0);
    ASSERT_EQ(daemon().finish(), 0);

    process again(SCCD_DEV_PATH, {"--state", seed}, directory());
    ASSERT_EQ(again.line(), "sccd-dev: ready");

    EXPECT_EQ(run({"daemon", "state", "--json"}).json_lines().at(0)["state"], before);
    EXPECT_EQ(run({"acl", "create", "101"}).status, 1);
}

TEST_F(SccdDaemonCommands, FaultsAreOrderedListedAndCleared) {
    ASSERT_EQ(run({"daemon", "fault", "refuse", "request=addr-learning", "result=2012", "count=2"}).status, 0);
    EXPECT_EQ(run({"addr-learning", "3", "1"}).status, 1);

    const auto listed = run({"daemon", "fault", "list", "--json"}).json_lines().at(0)["faults"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["request"], "addr-learning");
    EXPECT_EQ(listed[0]["hits"], 1);
    EXPECT_EQ(run({"daemon", "fault", "clear"}).status, 0);
    EXPECT_EQ(run({"addr-learning", "3", "1"}).status, 0);
}

TEST_F(SccdDaemonCommands, AFaultThatDoesNotExistIsOneLine) {
    const finished result = run({"daemon", "fault", "explode"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.errors.starts_with("sccctl: fault: no action 'explode'; there are refuse, mute, ")) << result.errors;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1);
}

TEST(SccdCommandLine, AnUnknownOptionOrAMissingFileNameIsUsage) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--state"}, {"--scenario"}, {"--nonsense"}, {"operand"}}) {
        process daemon(SCCD_DEV_PATH, arguments, "/tmp");
        EXPECT_EQ(daemon.finish(), 2) << arguments[0];
    }
}

}  // namespace
}  // namespace ctl_test
