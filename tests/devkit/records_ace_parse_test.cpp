// The words of an ACE that stand for others, and where a faulty word is.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "scc_records.h"

namespace {

std::string printed(const std::string& text) {
    scc_ace_rule rule{};
    scc_records_error error{};
    if (scc_ace_parse_rule(text.c_str(), &rule, &error) != 0) {
        return std::string("error: ") + error.text;
    }
    char buffer[SCC_ACE_TEXT_BYTES];
    const std::size_t len = scc_ace_print_rule(&rule, buffer, sizeof buffer);
    EXPECT_EQ(len, std::strlen(buffer));
    return buffer;
}

// "offset: text".
std::string error_of(const std::string& text) {
    scc_ace_record ace{};
    ace.sn = 99;
    scc_records_error error{};
    EXPECT_EQ(scc_ace_parse(text.c_str(), &ace, &error), 22u) << text;
    EXPECT_EQ(ace.sn, 99u) << "written although the text is faulty";
    return std::to_string(error.offset) + ": " + error.text;
}

struct synonym {
    const char* written;
    const char* printed;
};

class RecordsAceSynonym : public testing::TestWithParam<synonym> {};

TEST_P(RecordsAceSynonym, IsReadAsTheSameRule) {
    EXPECT_EQ(printed(GetParam().written), GetParam().printed);
}

INSTANTIATE_TEST_SUITE_P(
    ports, RecordsAceSynonym,
    testing::Values(synonym{"permit tcp any any eq 443", "permit tcp any any port 443"},
                    synonym{"permit tcp any any eq https", "permit tcp any any port 443"},
                    synonym{"permit udp any eq domain any", "permit udp any port 53 any"},
                    synonym{"permit tcp any any eq http-alt", "permit tcp any any port 8080"},
                    synonym{"permit tcp any any port ftp-data-ssh", "permit tcp any any port 20-22"},
                    synonym{"permit tcp any any range 20 22", "permit tcp any any port 20-22"},
                    synonym{"permit tcp any range ssh http any", "permit tcp any port 22-80 any"},
                    synonym{"permit tcp any any neq 80", "permit tcp any any port 0-79,81-65535"},
                    synonym{"permit tcp any any neq 0", "permit tcp any any port 1-65535"},
                    synonym{"permit tcp any any lt 1024", "permit tcp any any port 0-1023"},
                    synonym{"permit tcp any any gt 1023", "permit tcp any any port 1024-65535"},
                    synonym{"permit tcp any any port 443,80,https,81-90",
                            "permit tcp any any port 80-90,443"},
                    synonym{"permit tcp any any port 5-9,1-6", "permit tcp any any port 1-9"},
                    synonym{"permit tcp any any port 0-65535", "permit tcp any any"},
                    synonym{"permit sctp any any port 36412", "permit 132 any any port 36412"}));

INSTANTIATE_TEST_SUITE_P(
    addresses, RecordsAceSynonym,
    testing::Values(
        synonym{"permit ip 10.0.0.0 0.255.255.255 any", "permit ip 10.0.0.0/8 any"},
        synonym{"permit ip 10.1.2.3 0.0.0.0 any", "permit ip host 10.1.2.3 any"},
        synonym{"permit ip any 10.1.2.3 255.255.255.255", "permit ip any any"},
        synonym{"permit ip 10.0.0.1 10.0.0.2", "permit ip host 10.0.0.1 host 10.0.0.2"},
        synonym{"permit ip 10.0.0.1 10.0.0.2 log", "permit ip host 10.0.0.1 host 10.0.0.2 log"},
        synonym{"permit ip 10.0.0.0 0.0.0.255 10.1.0.0 0.0.0.255", "permit ip 10.0.0.0/24 10.1.0.0/24"},
        synonym{"permit ip 10.0.0.0 0.0.0.255 host 10.1.0.0", "permit ip 10.0.0.0/24 host 10.1.0.0"},
        synonym{"permit tcp 10.0.0.1 10.0.0.2 eq 80", "permit tcp host 10.0.0.1 host 10.0.0.2 port 80"},
        synonym{"permit tcp 10.0.0.0 0.0.0.255 eq 80 any", "permit tcp 10.0.0.0/24 port 80 any"},
        synonym{"permit tcp 10.0.0.0 0.0.0.255 range 1 2 10.0.0.7",
                "permit tcp 10.0.0.0/24 port 1-2 host 10.0.0.7"},
        synonym{"permit ip 10.1.1.9 0.0.254.0 any", "permit ip 10.1.1.9 0.0.254.0 any"},
        synonym{"permit ip 10.1.7.9 0.0.254.0 any", "permit ip 10.1.1.9 0.0.254.0 any"}));

INSTANTIATE_TEST_SUITE_P(
    options, RecordsAceSynonym,
    testing::Values(synonym{"permit ip any any dscp ef", "permit ip any any dscp 46"},
                    synonym{"permit ip any any dscp af31", "permit ip any any dscp 26"},
                    synonym{"permit ip any any dscp cs7 cos nc", "permit ip any any cos 7 dscp 56"},
                    synonym{"permit ether cos bk", "permit ether cos 1"},
                    synonym{"permit icmp any any icmp-type echo-request", "permit icmp any any icmp-type 8"},
                    synonym{"permit icmp any any icmp-type port-unreachable",
                            "permit icmp any any icmp-type 3 icmp-code 3"},
                    synonym{"permit icmp6 any any icmp-type port-unreachable",
                            "permit icmp6 any any icmp-type 1 icmp-code 4"},
                    synonym{"permit icmp6 any any icmp-type nd-solicitation",
                            "permit icmp6 any any icmp-type 135"},
                    synonym{"permit ip any any time-range sun-sat 08:00-00:00",
                            "permit ip any any time-range 08:00-24:00"},
                    synonym{"permit ip any any time-range fri-mon 08:00-09:00",
                            "permit ip any any time-range mon,fri-sun 08:00-09:00"},
                    synonym{"permit ip any any remark printer", "permit ip any any remark \"printer\""}));

TEST(RecordsAceParse, AFaultIsToldWithTheByteWhereItBegins) {
    EXPECT_EQ(error_of(""), "0: action is missing");
    EXPECT_EQ(error_of("  allow ip any any"), "2: 'allow' is neither permit nor deny");
    EXPECT_EQ(error_of("permit ip any"), "13: destination address is missing");
    EXPECT_EQ(error_of("10"), "2: action is missing");
    EXPECT_EQ(error_of("permit"), "6: protocol is missing");
    EXPECT_EQ(error_of("permit foo any any"), "7: protocol 'foo' is not a number from 0 to 255");
    EXPECT_EQ(error_of("permit 256 any any"), "7: protocol '256' is not a number from 0 to 255");
    EXPECT_EQ(error_of("permit ip host 10.0.0.0/8 any"),
              "15: 'host' takes an address without a prefix length");
    EXPECT_EQ(error_of("permit ip any ::1"), "14: IPv4 and IPv6 do not go together in one rule");
    EXPECT_EQ(error_of("permit tcp 10.0.0.1 ::1"), "20: IPv4 and IPv6 do not go together in one rule");
    EXPECT_EQ(error_of("permit ip any any port 80"), "18: 'port' needs protocol tcp, udp or sctp");
    EXPECT_EQ(error_of("permit tcp any any port 90-80"), "27: port '80' is not a number from 90 to 65535");
    EXPECT_EQ(error_of("permit ip any any vlan 0"), "23: vlan '0' is not a number from 1 to 4094");
    EXPECT_EQ(error_of("permit ip any any vlan 5 vlan 5"), "25: 'vlan' is given twice");
    EXPECT_EQ(error_of("permit ip any any colour 1"), "18: unknown option 'colour'");
    EXPECT_EQ(error_of("permit ip any any ethertype 0x800"), "18: 'ethertype' goes with 'ether' alone");
    EXPECT_EQ(error_of("permit ether dscp 1"), "13: 'dscp' and 'fragments' need an IP protocol");
    EXPECT_EQ(error_of("permit ether src-mac 00:11:22:33:44"), "21: '00:11:22:33:44' is not a MAC address");
    EXPECT_EQ(error_of("permit ip any any id"), "20: ACE id is missing");
    EXPECT_EQ(error_of("permit ip any any id 5 vlan 2"), "23: 'vlan' follows the end of the ACE");
    EXPECT_EQ(error_of("4294967296 permit ip any any"),
              "0: sequence number '4294967296' is not a number from 0 to 4294967295");
    EXPECT_EQ(error_of("10 permit ip 10.0.0/8 any"), "13: '10.0.0/8' is not an address");
    EXPECT_EQ(error_of("permit ip 10.0.0.0/33 any"), "19: prefix length '33' is not a number from 0 to 32");
    EXPECT_EQ(error_of("permit tcp any any port 80,nosuchport"),
              "27: 'nosuchport' is not a port of services(5)");
    EXPECT_EQ(error_of("permit tcp any any port 80,,90"), "27: '' is not a port of services(5)");
    EXPECT_EQ(error_of("permit tcp any any range 9"), "26: last port is missing");
    EXPECT_EQ(error_of("permit tcp any any lt 0"), "22: no port is less than 0");
    EXPECT_EQ(error_of("permit tcp any any gt 65535"), "22: no port is greater than 65535");
    EXPECT_EQ(error_of("permit tcp any any port 1,3,5,7,9,11,13,15,17,19,21,23,25,27,29,31"),
              "64: a list holds at most 15 ports or ranges");
    EXPECT_EQ(
        error_of("permit ip 10.0.0.0 0.0.0.255 10.1.1.1"),
        "19: '0.0.0.255' may be a wildcard mask or the destination: write 'host' before single addresses");
}

TEST(RecordsAceParse, AnOptionThatTheRuleCannotHaveIsToldAtItsName) {
    EXPECT_EQ(error_of("permit udp any any established"), "19: 'established' needs protocol tcp");
    EXPECT_EQ(error_of("permit tcp any any icmp-type 8"), "19: 'icmp-type' needs protocol icmp or icmp6");
    EXPECT_EQ(error_of("permit icmp any any icmp-code 8"), "20: 'icmp-code' needs 'icmp-type'");
    EXPECT_EQ(error_of("permit ether fragments"), "13: 'dscp' and 'fragments' need an IP protocol");
    EXPECT_EQ(error_of("permit tcp any any eq 80 fragments"),
              "25: the later fragments of a packet have no ports");
    EXPECT_EQ(error_of("permit icmp any any icmp-type echo icmp-type 3"), "35: 'icmp-type' is given twice");
}

TEST(RecordsAceParse, AValueThatIsNoneIsTold) {
    EXPECT_EQ(error_of("permit ip any any dscp 64"), "23: dscp '64' is not a number from 0 to 63");
    EXPECT_EQ(error_of("permit ip any any dscp best"),
              "23: dscp 'best' is neither a known name nor a number");
    EXPECT_EQ(error_of("permit ip any any cos 8"), "22: cos '8' is not a number from 0 to 7");
    EXPECT_EQ(error_of("permit icmp any any icmp-type nd-solicitation"),
              "30: 'nd-solicitation' is not an ICMP type of protocol 1");
    EXPECT_EQ(error_of("permit ip any any inner-vlan 4095"),
              "29: inner-vlan '4095' is not a number from 1 to 4094");
    EXPECT_EQ(error_of("permit ip any any time-range"), "28: time is missing");
    EXPECT_EQ(error_of("permit ip any any time-range noon 08:00-09:00"),
              "29: 'noon' is neither a day (sun to sat) nor a time");
    for (const char* time :
         {"8:00-9:00", "08:00", "08:60-09:00", "24:00-09:00", "08:00-24:01", "08:00_09:00"}) {
        EXPECT_EQ(error_of(std::string("permit ip any any time-range ") + time),
                  std::string("29: '") + time + "' is not a time HH:MM-HH:MM");
    }
    EXPECT_EQ(error_of("permit ip any any time-range 08:00-08:00"),
              "18: a time range that ends when it begins is empty");
    EXPECT_EQ(error_of("permit ip any any remark \"open"), "25: the quote is not closed");
    EXPECT_EQ(error_of("permit ip any any remark \"a\"b"), "28: a blank must follow the closing quote");
    EXPECT_EQ(error_of("permit ip any any remark \"\""), "25: the remark is empty");
    EXPECT_EQ(error_of("permit ip any any remark " + std::string(64, 'x')),
              "25: a remark has at most 63 characters");
    EXPECT_EQ(error_of("permit ip any any remark \"\x01\""),
              "18: a remark is printable ASCII without quotes");
}

TEST(RecordsAceParse, NullPointersAreRefused) {
    scc_ace_record ace{};
    scc_ace_rule rule{};
    EXPECT_EQ(scc_ace_parse(nullptr, &ace, nullptr), 22u);
    EXPECT_EQ(scc_ace_parse("permit ether", nullptr, nullptr), 22u);
    EXPECT_EQ(scc_ace_parse_rule(nullptr, &rule, nullptr), 22u);
    EXPECT_EQ(scc_ace_parse_rule("permit ether", nullptr, nullptr), 22u);
    EXPECT_EQ(scc_ace_parse("permit", &ace, nullptr), 22u) << "the error may be null";
}

}  // namespace
