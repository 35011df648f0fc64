// The commands for whole ACLs, run against a real daemon: checking, replacing, comparing and listing.
#include "ctl_support.h"

namespace ctl_test {
namespace {

using nlohmann::json;

constexpr const char* before =
    "acl 1 type 1 class 0\n"
    "  10 permit ip 10.0.0.0/8 any\n"
    "  20 deny ip any any\n"
    "acl 2 type 1 class 5\n"
    "  10 permit ether\n"
    "apply 1 type 1 vdev 0 ifx 3\n";

constexpr const char* after =
    "acl 1 type 1 class 0\n"
    "  10 permit ip 10.0.0.0/8 any\n"
    "  20 permit tcp any any port 80,443 remark \"the web\"\n"
    "  30 deny ip any any log\n"
    "acl 2 type 1 class 5\n"
    "  10 permit ether\n"
    "acl 3 type 1 class 0\n"
    "  10 deny ether\n"
    "apply 1 type 1 vdev 0 ifx 4\n"
    "apply 3 type 1 vdev 0 ifx 3\n";

class CtlAclProgram : public with_daemon {
  protected:
    finished load(const std::string& text, const std::string& option = "") const {
        std::vector<std::string> words = {"acl", "load", file("in.acl", text)};
        if (!option.empty()) {
            words.push_back(option);
        }
        return run(words);
    }
    std::string listed() const { return run({"acl", "list"}).output; }
};

TEST_F(CtlAclProgram, ListShowsWhatTheDaemonHoldsAsAFile) {
    EXPECT_EQ(listed(), "the daemon holds no ACL\n");
    ASSERT_EQ(load(before).status, 0);
    EXPECT_EQ(listed(), before);
    EXPECT_EQ(run({"acl", "list", "2"}).output, "acl 2 type 1 class 5\n  10 permit ether\n");
    const finished missing = run({"acl", "list", "9"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.errors, "sccctl: acl list: the daemon holds no ACL 9\n");
    const json shown = run({"acl", "list", "1", "--json"}).json_lines().at(0)["acls"];
    EXPECT_EQ(shown[0]["acl"], 1);
    EXPECT_EQ(shown[0]["aces"][1]["rule"], "20 deny ip any any");
    EXPECT_EQ(shown[0]["applications"], json::parse(R"([{"ifx":3,"direction":"in","apply_type":1}])"));
}

TEST_F(CtlAclProgram, ListShowsRecordsThatHoldNoRule) {
    ASSERT_EQ(load("acl 1\n 7 raw 0102ff id 9\n").status, 0);
    EXPECT_EQ(listed(), "acl 1 type 1 class 0\n  7 raw 0102ff id 9\n");
}

TEST_F(CtlAclProgram, CheckTellsEveryFaultyLineAndSendsNothing) {
    const finished faulty = load("acl 1\n 10 permit nothing\n 20 deny ip any any vlan 0\n", "--check");
    EXPECT_EQ(faulty.status, 2);
    EXPECT_EQ(faulty.errors,
              "sccctl: " + file("in.acl") + ":2:12: protocol 'nothing' is not a number from 0 to 255\n" +
                  "sccctl: " + file("in.acl") + ":3:26: vlan '0' is not a number from 1 to 4094\n");
    const finished good = load(before, "--check");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.output, file("in.acl") + ": no faulty line, 6 requests, nothing sent\n");
    EXPECT_EQ(listed(), "the daemon holds no ACL\n");
}

TEST_F(CtlAclProgram, DiffShowsWhatReplaceWouldChange) {
    ASSERT_EQ(load(before).status, 0);
    const finished same = run({"acl", "diff", file("same.acl", before)});
    EXPECT_EQ(same.status, 0);
    EXPECT_EQ(same.output, "");
    const finished other = run({"acl", "diff", file("other.acl", after)});
    EXPECT_EQ(other.status, 1);
    EXPECT_EQ(other.output,
              "- apply 1 type 1 vdev 0 ifx 3\n"
              "- acl 1 type 1: 20 deny ip any any\n"
              "+ acl 1 type 1: 20 permit tcp any any port 80,443 remark \"the web\"\n"
              "+ acl 1 type 1: 30 deny ip any any log\n"
              "+ apply 1 type 1 vdev 0 ifx 4\n"
              "+ acl 3 type 1 class 0\n"
              "+ acl 3 type 1: 10 deny ether\n"
              "+ apply 3 type 1 vdev 0 ifx 3\n");
    EXPECT_EQ(run({"acl", "diff", file("other.acl"), "--json"}).json_lines().at(0)["changes"].size(), 8u);
    EXPECT_EQ(listed(), before);
}

TEST_F(CtlAclProgram, ReplaceMakesTheDaemonHoldTheFile) {
    ASSERT_EQ(load(before).status, 0);
    const finished replaced = load(after, "--replace");
    EXPECT_EQ(replaced.status, 0) << replaced.errors;
    EXPECT_EQ(replaced.output, file("in.acl") + ": 8 changes made\n");
    EXPECT_EQ(listed(), after);
    EXPECT_EQ(load(after, "--replace").output, file("in.acl") + ": 0 changes made\n");
}

std::string nth_request(int number) {
    return "nth=" + std::to_string(number);
}

// The eight changes between the two files take a request each.
class CtlAclRefused : public CtlAclProgram, public testing::WithParamInterface<int> {};

TEST_P(CtlAclRefused, ReplaceTakesBackWhatItDidBefore) {
    ASSERT_EQ(load(before).status, 0);
    ASSERT_EQ(run({"daemon", "fault", "refuse", "result=12", nth_request(GetParam())}).status, 0);
    const finished refused = load(after, "--replace");
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.errors.starts_with("sccctl: " + file("in.acl") + ":")) << refused.errors;
    EXPECT_TRUE(refused.output.starts_with(file("in.acl") + ": nothing changed: ")) << refused.output;
    EXPECT_EQ(listed(), before);
}

INSTANTIATE_TEST_SUITE_P(requests, CtlAclRefused, testing::Range(1, 9));

// The new ACE is added, its ACL's application refused, and then the deletion of the ACE as well.
TEST_F(CtlAclProgram, WhatReplaceCannotTakeBackIsTold) {
    ASSERT_EQ(load("acl 1\n").status, 0);
    ASSERT_EQ(run({"daemon", "fault", "refuse", "result=12", nth_request(2), "count=2"}).status, 0);
    const finished refused = load("acl 1\n 10 permit ether\napply 1 ifx 2\n", "--replace");
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.errors.starts_with("sccctl: " + file("in.acl") + ":3: ")) << refused.errors;
    EXPECT_NE(refused.errors.find(": cannot be taken back: - acl 1 type 1: 10 permit ether: "),
              std::string::npos)
        << refused.errors;
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(listed(), "acl 1 type 1 class 0\n  10 permit ether\n");
}

TEST_F(CtlAclProgram, ReplaceTellsWhatTookPlaceWhenTheDaemonFallsSilent) {
    ASSERT_EQ(load("acl 1\n").status, 0);
    ASSERT_EQ(run({"daemon", "mute", "type=133"}).status, 0);
    const finished lost = run({"acl", "load", file("in.acl", "acl 1\n 10 permit ether\napply 1 ifx 2\n"),
                               "--replace", "--timeout", long_enough_to_register});
    EXPECT_EQ(lost.status, 3);
    EXPECT_EQ(lost.errors, "sccctl: acl load: no answer within 4.0 s; 1 of 2 changes made, 0 taken back\n");
}

TEST_F(CtlAclProgram, ReplaceCheckAndThenSaveExcludeEachOther) {
    EXPECT_EQ(run({"acl", "load", file("in.acl", before), "--replace", "--check"}).status, 2);
    EXPECT_EQ(run({"acl", "load", file("in.acl"), "--replace", "--then-save", file("out.acl")}).status, 2);
    EXPECT_EQ(listed(), "the daemon holds no ACL\n");
}

TEST_F(CtlAclProgram, ARemarkKeepsItsQuotesOnTheCommandLine) {
    ASSERT_EQ(run({"acl", "create", "1"}).status, 0);
    ASSERT_EQ(run({"acl", "add-ace", "1", "10", "permit", "ether", "remark", "to the printer"}).status, 0);
    EXPECT_EQ(listed(), "acl 1 type 1 class 0\n  10 permit ether remark \"to the printer\"\n");
}

class CtlAclAlone : public without_daemon {};

TEST_F(CtlAclAlone, CheckNeedsNoDaemonAndTheOthersSayThatThereIsNone) {
    const std::string name = file("in.acl", before);
    EXPECT_EQ(run({"acl", "load", name, "--check"}).status, 0);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"acl", "list"}, std::vector<std::string>{"acl", "diff", name},
          std::vector<std::string>{"acl", "load", name, "--replace", "--timeout", "0.2"}}) {
        const finished result = run(words);
        EXPECT_EQ(result.status, 3) << words[1];
        EXPECT_NE(result.errors, "") << words[1];
    }
}

}  // namespace
}  // namespace ctl_test
