// What has to change between the ACLs that a daemon holds and those of a file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "acl_steps.h"

namespace scc::ctl {
namespace {

acl_file file_of(std::string_view text) {
    std::vector<file_error> errors;
    auto file = parse_acl_file(text, errors);
    for (const file_error& each : errors) {
        ADD_FAILURE() << each.line << ": " << each.text;
    }
    return file.value_or(acl_file{});
}

std::vector<std::string> texts_of(const std::vector<acl_step>& steps) {
    std::vector<std::string> texts;
    for (const acl_step& each : steps) {
        texts.push_back(step_text(each));
    }
    return texts;
}

std::vector<std::string> between(std::string_view present, std::string_view wanted) {
    return texts_of(steps_between(file_of(present), file_of(wanted)));
}

using texts = std::vector<std::string>;

constexpr std::string_view campus =
    "acl 7 type 2 class 3\n 10 permit ether\n 20 deny ether vlan 5\napply 7 ifx 4\n";

TEST(CtlAclSteps, EqualAclsNeedNoStep) {
    EXPECT_EQ(between(campus, campus), texts{});
    EXPECT_EQ(between("acl 1\napply 1 ifx 2 apply-type 1\n", "acl 1\napply 1 ifx 2\n"), texts{});
}

TEST(CtlAclSteps, ANewAclIsCreatedFilledAndApplied) {
    EXPECT_EQ(between("", campus),
              (texts{"+ acl 7 type 2 class 3", "+ acl 7 type 2: 10 permit ether",
                     "+ acl 7 type 2: 20 deny ether vlan 5", "+ apply 7 type 2 vdev 0 ifx 4"}));
}

TEST(CtlAclSteps, AclsThatTheFileDoesNotNameStay) {
    EXPECT_EQ(between("acl 1\n 10 permit ether\napply 1 ifx 2\nacl 7 type 2 class 3\n", campus),
              (texts{"+ acl 7 type 2: 10 permit ether", "+ acl 7 type 2: 20 deny ether vlan 5",
                     "+ apply 7 type 2 vdev 0 ifx 4"}));
}

TEST(CtlAclSteps, OnlyAcesThatDifferAreReplaced) {
    EXPECT_EQ(between("acl 1\n 10 permit ether\n 20 deny ether\n 30 deny ether vlan 3\n",
                      "acl 1\n 10 permit ether\n 20 permit ether\n 40 deny ether\n"),
              (texts{"- acl 1 type 1: 20 deny ether", "- acl 1 type 1: 30 deny ether vlan 3",
                     "+ acl 1 type 1: 20 permit ether", "+ acl 1 type 1: 40 deny ether"}));
}

TEST(CtlAclSteps, AcesOfOneNumberAreReplacedTogetherToKeepTheirOrder) {
    EXPECT_EQ(between("acl 1\n 10 permit ether id 1\n 10 deny ether id 2\n",
                      "acl 1\n 10 deny ether id 2\n 10 permit ether id 1\n"),
              (texts{"- acl 1 type 1: 10 permit ether id 1", "- acl 1 type 1: 10 deny ether id 2",
                     "+ acl 1 type 1: 10 deny ether id 2", "+ acl 1 type 1: 10 permit ether id 1"}));
}

TEST(CtlAclSteps, PlacesAreLeftBeforeOthersAreTaken) {
    EXPECT_EQ(between("acl 1\napply 1 ifx 2\napply 1 ifx 3\n",
                      "acl 1\napply 1 ifx 3\napply 1 ifx 2 direction out\n"),
              (texts{"- apply 1 type 1 vdev 0 ifx 2", "+ apply 1 type 1 vdev 0 ifx 2 direction out"}));
}

TEST(CtlAclSteps, AnotherClassNeedsAnAclOfItsOwn) {
    EXPECT_EQ(between("acl 1 class 1\n 10 permit ether\napply 1 ifx 2\n",
                      "acl 1 class 2\n 10 permit ether\napply 1 ifx 2\n"),
              (texts{"- apply 1 type 1 vdev 0 ifx 2", "- acl 1 type 1: 10 permit ether",
                     "- acl 1 type 1 class 1", "+ acl 1 type 1 class 2", "+ acl 1 type 1: 10 permit ether",
                     "+ apply 1 type 1 vdev 0 ifx 2"}));
}

TEST(CtlAclSteps, AnApplicationOfAnotherAclIsMade) {
    EXPECT_EQ(between("acl 9\n", "apply 9 type 1 ifx 2\n"), (texts{"+ apply 9 type 1 vdev 0 ifx 2"}));
}

TEST(CtlAclSteps, TheInverseOfAStepTakesItBack) {
    const auto steps = steps_between(file_of("acl 1\n 10 permit ether\napply 1 ifx 2\n"),
                                     file_of("acl 1\n 20 permit ether\napply 1 ifx 3\nacl 2\n"));
    texts back;
    for (const acl_step& each : steps) {
        back.push_back(step_text(inverse(each)));
        EXPECT_EQ(step_text(inverse(inverse(each))), step_text(each));
    }
    EXPECT_EQ(back, (texts{"+ apply 1 type 1 vdev 0 ifx 2", "+ acl 1 type 1: 10 permit ether",
                           "- acl 1 type 1: 20 permit ether", "- apply 1 type 1 vdev 0 ifx 3",
                           "- acl 2 type 1 class 0"}));
}

}  // namespace
}  // namespace scc::ctl
