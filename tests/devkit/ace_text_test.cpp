// The devkit's rule: its text, its bytes, and the conversion between them.
#include "ace_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "ace_layout.h"

namespace scc::ace {
namespace {

std::string read_and_print(const std::string& text) {
    std::string error;
    const auto rule = parse_rule(text, error);
    return rule ? print_rule(*rule) : "error: " + error;
}

std::string error_of(const std::string& text) {
    std::string error;
    EXPECT_FALSE(parse_ace(text, error)) << text;
    return error;
}

scc_ace_record ace_of(const std::string& text) {
    std::string error;
    const auto ace = parse_ace(text, error);
    EXPECT_TRUE(ace) << text << ": " << error;
    return ace.value_or(scc_ace_record{});
}

class AceTextCanonicalRule : public testing::TestWithParam<const char*> {};

TEST_P(AceTextCanonicalRule, PrintsAsItWasRead) {
    EXPECT_EQ(read_and_print(GetParam()), GetParam());
}

TEST_P(AceTextCanonicalRule, ComesBackFromTheRecordUnchanged) {
    std::string error;
    const auto rule = parse_rule(GetParam(), error);
    ASSERT_TRUE(rule) << error;
    scc_ace_record record{};
    encode(*rule, record);
    const auto again = decode(record);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, *rule);
}

INSTANTIATE_TEST_SUITE_P(
    rules, AceTextCanonicalRule,
    testing::Values("permit ip any any", "deny ip 10.0.0.0/8 any", "permit ip host 10.1.1.1 192.168.0.0/16",
                    "deny tcp any host 10.1.1.1 port 80",
                    "permit udp any port 1024-65535 10.0.0.0/24 port 53", "permit tcp any any",
                    "permit tcp 0.0.0.0/0 any", "permit udp ::/0 any port 5353", "deny icmp any any",
                    "permit icmp6 any host fe80::1", "permit 47 10.0.0.0/8 any",
                    "permit 132 any any port 36412", "permit ipv6 2001:db8::/32 any", "deny ether",
                    "deny ether src-mac 00:11:22:33:44:55 vlan 10 ethertype 0x0806",
                    "permit ether dst-mac 01:00:00:00:00:00/01:00:00:00:00:00",
                    "permit ip any any src-mac 00:11:22:33:44:55 dst-mac aa:bb:cc:dd:ee:ff vlan 4094 dscp 46",
                    "permit ip 10.0.0.1 0.0.255.0 host 10.9.9.9", "deny ip any 10.1.0.0 0.0.2.255",
                    "permit ipv6 2001:db8::1 0:0:ffff:: any",
                    "permit tcp any port 1-19,80,8000-8080 any port 443", "permit tcp any any established",
                    "deny ip any any fragments", "deny udp any 10.0.0.0/8 fragments",
                    "permit icmp any any icmp-type 3 icmp-code 4", "permit icmp6 any any icmp-type 135",
                    "permit ether vlan 100 inner-vlan 7 cos 5", "permit ip any any time-range 08:00-17:30",
                    "permit ip any any time-range mon-fri 22:00-06:00",
                    "permit ip any any time-range mon,sat,sun 00:00-24:00",
                    "deny ip any any log remark \"the printer's #2 port\""));

TEST(AceText, ABareAddressIsAHost) {
    EXPECT_EQ(read_and_print("permit ip 10.1.1.1 any"), "permit ip host 10.1.1.1 any");
}

TEST(AceText, BitsAfterThePrefixAreCleared) {
    EXPECT_EQ(read_and_print("permit ip 10.255.3.4/9 any"), "permit ip 10.128.0.0/9 any");
    EXPECT_EQ(read_and_print("permit ipv6 2001:db8::ffff/32 any"), "permit ipv6 2001:db8::/32 any");
}

TEST(AceText, AMacAddressMayBeDotted) {
    EXPECT_EQ(read_and_print("deny ether src-mac 0011.2233.44ff"), "deny ether src-mac 00:11:22:33:44:ff");
}

TEST(AceText, NumbersMayBeHexadecimal) {
    EXPECT_EQ(read_and_print("permit 0x2F any any vlan 0x10"), "permit 47 any any vlan 16");
}

TEST(AceText, AnAceWithoutIdHasItsSequenceNumberAsId) {
    const scc_ace_record ace = ace_of("10 permit ip any any");
    EXPECT_EQ(ace.sn, 10u);
    EXPECT_EQ(ace.ace_id, 10u);
    EXPECT_EQ(print_ace(ace), "10 permit ip any any");
}

TEST(AceText, AnAceMayHaveAnIdOfItsOwn) {
    const scc_ace_record ace = ace_of("10 deny tcp any any port 22 id 7");
    EXPECT_EQ(ace.sn, 10u);
    EXPECT_EQ(ace.ace_id, 7u);
    EXPECT_EQ(print_ace(ace), "10 deny tcp any any port 22 id 7");
}

TEST(AceText, TheRulesBytesLieWhereTheLayoutSays) {
    const scc_ace_record ace =
        ace_of("20 permit tcp 10.0.0.0/8 port 1-2 host 10.1.1.9 port 80 vlan 5 dscp 46 id 3");
    const unsigned char expected[84] = {
        'A',  'C', 'E', '1', 1, 4, 1,  6,                            // marker, permit, IPv4, protocol 6
        0x14, 0,   5,   0,   0, 0, 46, 0,                            // vlan and dscp; 5; no ethertype; 46
        10,   0,   0,   0,   0, 0, 0,  0, 0,  0, 0,  0, 0, 0, 0, 0,  // source
        10,   1,   1,   9,   0, 0, 0,  0, 0,  0, 0,  0, 0, 0, 0, 0,  // destination
        8,    32,  0,   0,   1, 0, 2,  0, 80, 0, 80, 0,              // prefixes, ports 1-2 and 80-80
        0,    0,   0,   0,   0, 0, 0,  0, 0,  0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(reinterpret_cast<const unsigned char*>(&ace) + 16, expected, sizeof expected), 0);
    const unsigned char numbers[8] = {20, 0, 0, 0, 3, 0, 0, 0};
    EXPECT_EQ(std::memcmp(reinterpret_cast<const unsigned char*>(&ace) + 220, numbers, sizeof numbers), 0);
}

TEST(AceLayout, EncodingLeavesTheLibrarysBytesAlone) {
    scc_ace_record record;
    std::memset(&record, 0xAA, sizeof record);
    encode(rule{}, record);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    for (std::size_t at = 0; at < 16; ++at) {
        EXPECT_EQ(bytes[at], 0xAA) << at;
    }
    for (std::size_t at = 220; at < 228; ++at) {
        EXPECT_EQ(bytes[at], 0xAA) << at;
    }
    for (std::size_t at = 404; at < sizeof record; ++at) {
        EXPECT_EQ(bytes[at], 0xAA) << at;
    }
}

TEST(AceLayout, ARecordOfSomebodyElseHoldsNoRule) {
    scc_ace_record record{};
    EXPECT_FALSE(decode(record));
    std::memset(record.match, 0xFF, sizeof record.match);
    EXPECT_FALSE(decode(record));
    EXPECT_FALSE(print_ace(record));
}

// Another program may write records too, without clearing unused bytes.
TEST(AceLayout, BitsThatTheRuleIgnoresAreNotRead) {
    scc_ace_record record = ace_of("permit ip 10.0.0.0/8 any src-mac 01:00:00:00:00:00/01:00:00:00:00:00");
    const auto clean = decode(record);
    auto* bytes = reinterpret_cast<unsigned char*>(&record);
    std::memset(bytes + 33, 0xFF, 15);  // of the source address
    std::memset(bytes + 48, 0xFF, 16);  // the destination address
    std::memset(bytes + 76, 0xFF, 6);   // the MAC address
    std::memset(bytes + 88, 0xFF, 12);  // a MAC address that does not count
    ASSERT_TRUE(clean);
    EXPECT_EQ(decode(record), clean);
}

class AceTextBrokenByte : public testing::TestWithParam<std::tuple<std::size_t, int>> {};

TEST_P(AceTextBrokenByte, MakesTheRecordHoldNoRule) {
    scc_ace_record record = ace_of("permit ip 10.0.0.0/8 any");
    const auto [offset, value] = GetParam();
    reinterpret_cast<unsigned char*>(&record)[offset] = static_cast<unsigned char>(value);
    EXPECT_FALSE(decode(record));
}

INSTANTIATE_TEST_SUITE_P(bytes, AceTextBrokenByte,
                         testing::Values(std::tuple{std::size_t{16}, 0}, std::tuple{std::size_t{20}, 2},
                                         std::tuple{std::size_t{21}, 5}, std::tuple{std::size_t{21}, 0},
                                         std::tuple{std::size_t{24}, 0x08}, std::tuple{std::size_t{24}, 0x04},
                                         std::tuple{std::size_t{64}, 33}, std::tuple{std::size_t{68}, 1},
                                         std::tuple{std::size_t{25}, 0x80},
                                         std::tuple{std::size_t{24}, 0x20 + 0x80},
                                         std::tuple{std::size_t{102}, 15}, std::tuple{std::size_t{340}, 7}));

TEST(AceText, WhatIsWrongIsNamed) {
    EXPECT_EQ(error_of("permit ip any"), "destination address is missing");
}

}  // namespace
}  // namespace scc::ace
