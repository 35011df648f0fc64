// The text file of ACLs: its meaning, its errors with their lines, and writing it back.
#include <gtest/gtest.h>

#include <cstring>

#include "acl_file.h"

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

std::vector<file_error> errors_of(std::string_view text) {
    std::vector<file_error> errors;
    EXPECT_FALSE(parse_acl_file(text, errors));
    return errors;
}

constexpr std::string_view campus =
    "# the campus\n"
    "acl 101 type 3 class 1\n"
    " 10 permit ip 10.0.0.0/8 any\n"
    "\n"
    " 20 deny tcp any host 10.1.1.1 port 80   # no web\n"
    "apply 101 ifx 5\n"
    "acl 102\n"
    " permit ip any any\n"
    " deny ip any any\n";

TEST(CtlAclFile, AnApplicationHasTheClassOfItsAclInEitherForm) {
    const acl_file file = file_of("acl 7 type 3 class 2\napply 7 ifx 4\napply 7 type 3 ifx 5\n");
    ASSERT_EQ(file.applications.size(), 2u);
    EXPECT_EQ(file.applications[0].record.key.acl_class, 2u);
    EXPECT_EQ(file.applications[1].record.key.acl_class, 2u);
}

TEST(CtlAclFile, AnAceWithoutANumberIsRefusedWhenNoneIsLeft) {
    const auto errors = errors_of("acl 7\n4294967295 permit ip any any\npermit ip any any\n");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].line, 3u);
    EXPECT_EQ(errors[0].text, "no sequence number is left: give one");
}

TEST(CtlAclFile, ReadsAclsAcesAndApplications) {
    const acl_file file = file_of(campus);
    ASSERT_EQ(file.acls.size(), 2u);
    EXPECT_EQ(file.acls[0].key.acl_id, 101u);
    EXPECT_EQ(file.acls[0].key.app_type, 3u);
    EXPECT_EQ(file.acls[0].key.acl_class, 1u);
    ASSERT_EQ(file.acls[0].aces.size(), 2u);
    EXPECT_EQ(file.acls[0].aces[1].record.sn, 20u);
    EXPECT_EQ(file.acls[0].aces[1].line, 5u);
    ASSERT_EQ(file.applications.size(), 1u);
    EXPECT_EQ(file.applications[0].record.key.app_type, 3u);
    EXPECT_EQ(file.applications[0].record.target[0], 5u);
    EXPECT_EQ(file.size(), 7u);
}

TEST(CtlAclFile, AcesWithoutANumberGetMultiplesOfTen) {
    const acl_file file = file_of("acl 1\n 15 permit ip any any\n deny ip any any\n permit ether\n");
    ASSERT_EQ(file.acls[0].aces.size(), 3u);
    EXPECT_EQ(file.acls[0].aces[1].record.sn, 20u);
    EXPECT_EQ(file.acls[0].aces[2].record.sn, 30u);
}

TEST(CtlAclFile, EveryFaultyLineIsReportedWithItsNumber) {
    const auto errors = errors_of(
        "10 permit ip any any\n"
        "acl 0\n"
        "acl 1 type 59\n"
        "acl 2\n"
        " 10 allow ip any any\n"
        "acl 2\n"
        "apply 7 ifx 3\n"
        "apply 2\n"
        "apply 2 ifx 3 direction up\n"
        "acl 3 color red\n"
        "acl 3 type\n"
        "acl 3 type 1 type 2\n"
        "acl\n"
        " 5 raw 0g\n");
    ASSERT_EQ(errors.size(), 13u);
    const file_error expected[] = {
        {1, 1, "an ACE needs an 'acl' line above it"},
        {2, 5, "ACL id '0' is not a number from 1 to 32768"},
        {3, 12, "type '59' is not a number from 1 to 58"},
        {5, 5, "'allow' is neither permit nor deny"},
        {6, 5, "ACL 2 of type 1 already stands in line 4"},
        {7, 7, "no ACL 7 above: 'type' must be given"},
        {8, 8, "'ifx' is missing"},
        {9, 25, "direction 'up' is neither in nor out"},
        {10, 7, "unknown word 'color'"},
        {11, 11, "'type' needs a value"},
        {12, 14, "'type' is given twice"},
        {13, 4, "the ACL id is missing"},
        {14, 8, "'raw' needs the record's bytes from offset 16 on in hexadecimal pairs"}};
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].line, expected[i].line);
        EXPECT_EQ(errors[i].column, expected[i].column) << expected[i].text;
        EXPECT_EQ(errors[i].text, expected[i].text);
    }
}

TEST(CtlAclFile, ANamedTimeRangeStandsForItsTimes) {
    constexpr std::string_view named =
        "time-range office mon-fri 08:00-18:00\n"
        "acl 1\n"
        " permit ip any any time-range office\n"
        "time-range lunch_2 12:00-13:00\n"
        "acl 2\n"
        " deny tcp any any time-range lunch_2 remark \"no time-range office here\"\n"
        " deny udp any any remark time-range time-range office log\n";
    EXPECT_EQ(print_acl_file(file_of(named)),
              "acl 1 type 1 class 0\n"
              "  10 permit ip any any time-range mon-fri 08:00-18:00\n"
              "acl 2 type 1 class 0\n"
              "  10 deny tcp any any time-range 12:00-13:00 remark \"no time-range office here\"\n"
              "  20 deny udp any any time-range mon-fri 08:00-18:00 log remark \"time-range\"\n");
}

TEST(CtlAclFile, AFaultyTimeRangeIsReportedWithItsPlace) {
    const auto errors = errors_of(
        "time-range office mon-fri 08:00-18:00\n"
        "time-range office 08:00-18:00\n"
        "time-range mon-work 08:00-18:00\n"
        "time-range 08:00-18:00\n"
        "time-range night\n"
        "time-range night mon-fry 08:00-18:00\n"
        "time-range night mon 25:00-26:00\n"
        "time-range night 08:00-18:00 log\n"
        "time-range night mon 08:00-18:00 id\n"
        "time-range\n"
        "acl 1\n"
        " permit ip any any time-range night\n"
        " permit ip any any time-range office lag\n"
        " permit ip any any time-range office time-range office\n");
    const file_error expected[] = {
        {2, 12, "time range 'office' already stands in line 1"},
        {3, 12,
         "'mon-work' is no name: it needs letters, digits, '-' and '_', and begins with a letter, but not "
         "with "
         "a day"},
        {4, 12,
         "'08:00-18:00' is no name: it needs letters, digits, '-' and '_', and begins with a letter, but not "
         "with a day"},
        {5, 17, "time is missing"},
        {6, 18, "'mon-fry' is neither a day (sun to sat) nor a time"},
        {7, 22, "'25:00-26:00' is not a time HH:MM-HH:MM"},
        {8, 30, "'log' follows the end of the time range"},
        {9, 34, "'id' follows the end of the time range"},
        {10, 11, "the name of the time range is missing"},
        {12, 31, "no time range 'night' above"},
        {13, 38, "unknown option 'lag'"},
        {14, 38, "'time-range' is given twice"}};
    ASSERT_EQ(errors.size(), std::size(expected));
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].line, expected[i].line);
        EXPECT_EQ(errors[i].column, expected[i].column) << expected[i].text;
        EXPECT_EQ(errors[i].text, expected[i].text);
    }
}

TEST(CtlAclFile, ARemarkOnItsOwnLineBelongsToTheAceBelow) {
    EXPECT_EQ(print_acl_file(file_of("acl 1\n remark \"the printer\"  # a note\n\n 7 permit ip any any id 9\n"
                                     " remark web\n deny tcp any any eq 80\n")),
              "acl 1 type 1 class 0\n"
              "  7 permit ip any any remark \"the printer\" id 9\n"
              "  10 deny tcp any any port 80 remark \"web\"\n");
}

TEST(CtlAclFile, ARemarkWithoutItsAceIsReported) {
    const auto errors = errors_of(
        "remark x\n"
        "acl 1\n"
        " remark\n"
        " remark \"open\n"
        " remark x y\n"
        " remark one\n"
        " remark two\n"
        " permit ip any any remark three\n"
        " remark four\n"
        " 5 raw 0102ff\n"
        " remark five\n"
        "acl 2\n"
        " remark six\n");
    const file_error expected[] = {{1, 1, "an ACE needs an 'acl' line above it"},
                                   {3, 8, "remark is missing"},
                                   {4, 9, "the quote is not closed"},
                                   {5, 11, "the line goes on after its remark"},
                                   {6, 2, "no ACE follows the remark"},
                                   {8, 2, "two remarks: the other one stands in line 7"},
                                   {10, 2, "no rule, so it cannot have the remark of line 9"},
                                   {11, 2, "no ACE follows the remark"},
                                   {13, 2, "no ACE follows the remark"}};
    ASSERT_EQ(errors.size(), std::size(expected));
    for (std::size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].line, expected[i].line);
        EXPECT_EQ(errors[i].column, expected[i].column) << expected[i].text;
        EXPECT_EQ(errors[i].text, expected[i].text);
    }
}

TEST(CtlAclFile, AnAmbiguousApplicationNeedsItsType) {
    const auto errors = errors_of("acl 1 type 1\nacl 1 type 2\napply 1 ifx 3\n");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].text, "more than one ACL 1: 'type' must say which");
    EXPECT_EQ(
        file_of("acl 1 type 1\nacl 1 type 2\napply 1 type 2 ifx 3\n").applications[0].record.key.app_type,
        2u);
}

TEST(CtlAclFile, PrintsWhatItReads) {
    constexpr std::string_view text =
        "acl 101 type 3 class 1\n"
        "  10 permit ip 10.0.0.0/8 any\n"
        "  20 deny tcp any host 10.1.1.1 port 80 id 7\n"
        "acl 102 type 1 class 0 vdev 2\n"
        "apply 101 type 3 vdev 0 ifx 5\n"
        "apply 102 type 1 vdev 2 ifx 6 direction out apply-type 4\n";
    EXPECT_EQ(print_acl_file(file_of(text)), text);
}

TEST(CtlAclFile, ARecordThatIsNoRuleIsWrittenRawAndComesBack) {
    acl_file file = file_of("acl 1\n 7 raw 0102ff id 9\n");
    ASSERT_EQ(file.acls[0].aces.size(), 1u);
    const scc_ace_record& ace = file.acls[0].aces[0].record;
    EXPECT_EQ(ace.match[0], 0x01);
    EXPECT_EQ(ace.match[2], 0xFF);
    EXPECT_EQ(ace.sn, 7u);
    EXPECT_EQ(ace.ace_id, 9u);
    EXPECT_EQ(print_acl_file(file), "acl 1 type 1 class 0\n  7 raw 0102ff id 9\n");
}

TEST(CtlAclFile, ARuleWithMoreBytesThanItsTextIsWrittenRaw) {
    acl_file file = file_of("acl 1\n 7 permit ether\n");
    file.acls[0].aces[0].record.action[683] = 0x5A;
    const std::string text = print_acl_file(file);
    EXPECT_NE(text.find(" raw "), std::string::npos);
    const acl_file again = file_of(text);
    EXPECT_EQ(
        std::memcmp(&again.acls[0].aces[0].record, &file.acls[0].aces[0].record, sizeof(scc_ace_record)), 0);
}

TEST(CtlAclFile, TheColumnOfAnAceWithoutANumberIsThatOfItsFaultyWord) {
    const auto errors = errors_of("acl 1\n\tpermit tcp any any eq 80,nowhere  # no such port\n");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].column, 27u);
    EXPECT_EQ(errors[0].text, "'nowhere' is not a port of services(5)");
}

TEST(CtlAclFile, AnAceMayStandOnceInAnAcl) {
    const auto errors =
        errors_of("acl 1\n 10 permit ether\n 10 deny ether id 11\n 10 deny ether\nacl 2\n 10 deny ether\n");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].line, 4u);
    EXPECT_EQ(errors[0].text, "an ACE 10 with id 10 already stands in line 2");
}

TEST(CtlAclFile, ANumberSignWithinQuotesBeginsNoComment) {
    const acl_file file = file_of("acl 1\n 10 permit ether remark \"printer #2\"  # \"quoted\" too\n");
    EXPECT_EQ(print_acl_file(file), "acl 1 type 1 class 0\n  10 permit ether remark \"printer #2\"\n");
    EXPECT_EQ(errors_of("acl 1\n permit ether remark \"open # no\n").at(0).text, "the quote is not closed");
}

}  // namespace
}  // namespace scc::ctl
