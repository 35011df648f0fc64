// The rule of an ACE byte by byte, and what a rule must not say.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "scc_records.h"

namespace {

scc_ace_record ace_of(const char* text) {
    scc_ace_record ace{};
    scc_records_error error{};
    EXPECT_EQ(scc_ace_parse(text, &ace, &error), 0u) << text << ": " << error.text;
    return ace;
}

std::vector<unsigned> bytes_of(const scc_ace_record& ace, std::size_t at, std::size_t count) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&ace);
    return {bytes + at, bytes + at + count};
}

using bytes = std::vector<unsigned>;

TEST(RecordsAceBytes, EachFieldLiesWhereTheHeaderSays) {
    EXPECT_EQ(bytes_of(ace_of("permit ether cos 5"), 24, 2), (bytes{0x20, 0}));
    EXPECT_EQ(bytes_of(ace_of("permit ether cos 5"), 31, 1), (bytes{5}));
    EXPECT_EQ(bytes_of(ace_of("permit ether inner-vlan 258"), 24, 2), (bytes{0x40, 0}));
    EXPECT_EQ(bytes_of(ace_of("permit ether inner-vlan 258"), 66, 2), (bytes{2, 1}));
    const scc_ace_record icmp = ace_of("permit icmp any any icmp-type 3 icmp-code 4");
    EXPECT_EQ(bytes_of(icmp, 24, 2), (bytes{0x80, 1}));
    EXPECT_EQ(bytes_of(icmp, 100, 2), (bytes{3, 4}));
    EXPECT_EQ(bytes_of(ace_of("permit tcp any any established"), 24, 2), (bytes{0, 2}));
    EXPECT_EQ(bytes_of(ace_of("permit ip any any fragments"), 24, 2), (bytes{0, 4}));
    EXPECT_EQ(bytes_of(ace_of("permit ip any any log"), 24, 2), (bytes{0, 0x10}));
    const scc_ace_record timed = ace_of("permit ip any any time-range mon,sat 08:01-24:00");
    EXPECT_EQ(bytes_of(timed, 24, 2), (bytes{0, 8}));
    EXPECT_EQ(bytes_of(timed, 136, 6), (bytes{0x42, 0, 0xE1, 1, 0xA0, 5}));
}

TEST(RecordsAceBytes, MasksThatAreNoPrefixLieAfterTheOtherFields) {
    const scc_ace_record ace = ace_of("permit ip 10.1.2.3 0.0.255.0 192.0.2.1 0.0.0.2");
    EXPECT_EQ(bytes_of(ace, 24, 2), (bytes{0, 0x60}));
    EXPECT_EQ(bytes_of(ace, 32, 4), (bytes{10, 1, 0, 3}));
    EXPECT_EQ(bytes_of(ace, 64, 2), (bytes{16, 30}));
    EXPECT_EQ(bytes_of(ace, 104, 4), (bytes{255, 255, 0, 255}));
    EXPECT_EQ(bytes_of(ace, 120, 4), (bytes{255, 255, 255, 253}));
}

TEST(RecordsAceBytes, PortsAfterTheFirstRangeLieInTheSecondPart) {
    const scc_ace_record ace = ace_of("permit tcp any port 1,3-4 any port 80,443,8080");
    EXPECT_EQ(bytes_of(ace, 68, 8), (bytes{1, 0, 1, 0, 80, 0, 80, 0}));
    EXPECT_EQ(bytes_of(ace, 102, 2), (bytes{1, 2}));
    EXPECT_EQ(bytes_of(ace, 228, 8), (bytes{3, 0, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes_of(ace, 284, 8), (bytes{0xBB, 1, 0xBB, 1, 0x90, 0x1F, 0x90, 0x1F}));
}

TEST(RecordsAceBytes, ARemarkLiesAfterThePorts) {
    EXPECT_EQ(bytes_of(ace_of("permit ether remark ab"), 340, 4), (bytes{'a', 'b', 0, 0}));
}

// Written by the tools before the further fields had a meaning.
TEST(RecordsAceBytes, ARecordWithoutFurtherFieldsIsReadAsBefore) {
    scc_ace_record ace{};
    const unsigned char older[] = {'A', 'C', 'E', '1', 1, 4, 1, 6, 0, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(ace.match, older, sizeof older);
    const unsigned char address[] = {10, 0, 0, 0};
    std::memcpy(ace.match + 16, address, sizeof address);
    ace.match[48] = 8;  // prefix length of the source
    const unsigned char ports[] = {0, 0, 0xFF, 0xFF, 80, 0, 80, 0};
    std::memcpy(ace.match + 52, ports, sizeof ports);
    char text[SCC_ACE_TEXT_BYTES];
    ASSERT_NE(scc_ace_print(&ace, text, sizeof text), 0u);
    EXPECT_STREQ(text, "0 permit tcp 10.0.0.0/8 any port 80");
}

TEST(RecordsAceBytes, ARuleFilledByHandPrintsAsItsText) {
    scc_ace_rule rule{};
    rule.action = SCC_ACE_PERMIT;
    rule.family = SCC_ACE_IPV4;
    rule.has_protocol = 1;
    rule.protocol = 6;
    ASSERT_EQ(scc_ace_ipv4(&rule.source, inet_addr("10.255.255.255"), 8), 0u);
    rule.destination_ports.count = 2;
    rule.destination_ports.ranges[0] = {443, 443};
    rule.destination_ports.ranges[1] = {80, 80};
    scc_ace_record ace{};
    ace.sn = 10;
    ace.ace_id = 3;
    scc_records_error error{};
    ASSERT_EQ(scc_ace_encode(&rule, &ace, &error), 0u) << error.text;
    char text[SCC_ACE_TEXT_BYTES];
    scc_ace_print(&ace, text, sizeof text);
    EXPECT_STREQ(text, "10 permit tcp 10.0.0.0/8 any port 80,443 id 3");
}

TEST(RecordsAceBytes, AnAddressTakesNoMoreBitsThanItHas) {
    scc_ace_address address{};
    const uint8_t ipv6[16] = {0x20, 1, 0x0D, 0xB8, 0xFF};
    EXPECT_EQ(scc_ace_ipv4(&address, 0, 33), 22u);
    EXPECT_EQ(scc_ace_ipv6(&address, ipv6, 129), 22u);
    EXPECT_EQ(scc_ace_ipv6(&address, nullptr, 1), 22u);
    ASSERT_EQ(scc_ace_ipv6(&address, ipv6, 33), 0u);
    EXPECT_EQ(address.bytes[3], 0xB8);
    EXPECT_EQ(address.bytes[4], 0x80);
    EXPECT_EQ(address.mask[4], 0x80);
    EXPECT_EQ(address.mask[5], 0);
}

struct contradiction {
    const char* reason;
    void (*make)(scc_ace_rule& rule);
};

class RecordsAceContradiction : public testing::TestWithParam<contradiction> {};

TEST_P(RecordsAceContradiction, IsRefusedAndWritesNothing) {
    scc_ace_rule rule{};
    rule.family = SCC_ACE_IPV4;
    GetParam().make(rule);
    scc_ace_record ace{};
    scc_records_error error{};
    EXPECT_EQ(scc_ace_encode(&rule, &ace, &error), 22u);
    EXPECT_STREQ(error.text, GetParam().reason);
    EXPECT_EQ(bytes_of(ace, 16, 4), (bytes{0, 0, 0, 0}));
    char text[SCC_ACE_TEXT_BYTES];
    EXPECT_EQ(scc_ace_print_rule(&rule, text, sizeof text), 0u);
    EXPECT_STREQ(text, "");
}

INSTANTIATE_TEST_SUITE_P(
    rules, RecordsAceContradiction,
    testing::Values(
        contradiction{"the action is neither permit nor deny", [](scc_ace_rule& rule) { rule.action = 2; }},
        contradiction{"the family is not known", [](scc_ace_rule& rule) { rule.family = 5; }},
        contradiction{"the rule uses bits without a meaning",
                      [](scc_ace_rule& rule) { rule.fields = 0x2000; }},
        contradiction{"an IPv4 mask has 32 bits", [](scc_ace_rule& rule) { rule.source.mask[4] = 1; }},
        contradiction{"addresses need one IP family",
                      [](scc_ace_rule& rule) {
                          rule.family = SCC_ACE_EVERY_FRAME;
                          rule.source.mask[0] = 0xFF;
                      }},
        contradiction{"IPv4 and IPv6 together need a protocol",
                      [](scc_ace_rule& rule) { rule.family = SCC_ACE_ANY_IP; }},
        contradiction{"'ether' has no protocol",
                      [](scc_ace_rule& rule) {
                          rule.family = SCC_ACE_EVERY_FRAME;
                          rule.has_protocol = 1;
                      }},
        contradiction{"a port range ends before it begins",
                      [](scc_ace_rule& rule) {
                          rule.source_ports.count = 1;
                          rule.source_ports.ranges[0] = {2, 1};
                      }},
        contradiction{"a list holds at most 15 ports or ranges",
                      [](scc_ace_rule& rule) { rule.destination_ports.count = 16; }},
        contradiction{"ports need protocol tcp, udp or sctp",
                      [](scc_ace_rule& rule) { rule.destination_ports.count = 1; }},
        contradiction{"a VLAN id is 1 to 4094", [](scc_ace_rule& rule) { rule.fields = SCC_ACE_VLAN; }},
        contradiction{"an inner VLAN id is 1 to 4094",
                      [](scc_ace_rule& rule) { rule.fields = SCC_ACE_INNER_VLAN; }},
        contradiction{"a DSCP is 0 to 63",
                      [](scc_ace_rule& rule) {
                          rule.fields = SCC_ACE_DSCP;
                          rule.dscp = 64;
                      }},
        contradiction{"a class of service is 0 to 7",
                      [](scc_ace_rule& rule) {
                          rule.fields = SCC_ACE_COS;
                          rule.cos = 8;
                      }},
        contradiction{"'icmp-type' needs protocol icmp or icmp6",
                      [](scc_ace_rule& rule) { rule.fields = SCC_ACE_ICMP_TYPE; }},
        contradiction{"the later fragments of a packet have neither flags nor ICMP types",
                      [](scc_ace_rule& rule) {
                          rule.has_protocol = 1;
                          rule.protocol = 6;
                          rule.fields = SCC_ACE_FRAGMENTS | SCC_ACE_ESTABLISHED;
                      }},
        contradiction{"a time range needs days", [](scc_ace_rule& rule) { rule.fields = SCC_ACE_TIME; }},
        contradiction{"a time is 00:00 to 24:00",
                      [](scc_ace_rule& rule) {
                          rule.fields = SCC_ACE_TIME;
                          rule.time_days = 1;
                          rule.time_end = 1441;
                      }},
        contradiction{"a remark has at most 63 characters",
                      [](scc_ace_rule& rule) { std::memset(rule.remark, 'x', sizeof rule.remark); }},
        contradiction{"a remark is printable ASCII without quotes",
                      [](scc_ace_rule& rule) { rule.remark[0] = '"'; }}));

TEST(RecordsAceBytes, PrintingIntoTooLittleSpaceTellsTheWholeLength) {
    const scc_ace_record ace = ace_of("10 permit ip any any");
    char text[8];
    std::memset(text, '*', sizeof text);
    EXPECT_EQ(scc_ace_print(&ace, text, 6), 20u);
    EXPECT_EQ(std::string(text, 8), std::string("10 pe\0**", 8));
    EXPECT_EQ(scc_ace_print(&ace, nullptr, 0), 20u);
}

TEST(RecordsAceBytes, NullPointersAreRefused) {
    scc_ace_record ace{};
    scc_ace_rule rule{};
    EXPECT_EQ(scc_ace_encode(nullptr, &ace, nullptr), 22u);
    EXPECT_EQ(scc_ace_encode(&rule, nullptr, nullptr), 22u);
    EXPECT_EQ(scc_ace_decode(nullptr, &rule), 22u);
    EXPECT_EQ(scc_ace_decode(&ace, nullptr), 22u);
    EXPECT_EQ(scc_ace_decode(&ace, &rule), 2u);
    EXPECT_EQ(scc_ace_print(nullptr, nullptr, 0), 0u);
    EXPECT_EQ(scc_ace_print_rule(nullptr, nullptr, 0), 0u);
}

}  // namespace
