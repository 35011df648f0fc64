#include "service/classify.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

struct classify_case {
    const char* rule;
    frame_bytes frame;
    bool matches;
};

class ServiceClassify : public ::testing::TestWithParam<classify_case> {};

TEST_P(ServiceClassify, ARuleMatchesExactlyThePacketsItNames) {
    const classify_case& one = GetParam();
    EXPECT_EQ(matches(rule_of(one.rule), packet_of(one.frame)), one.matches) << one.rule;
}

const frame_bytes no_ip = addresses + frame_bytes{0x88, 0xCC, 0, 0};

INSTANTIATE_TEST_SUITE_P(Families, ServiceClassify,
                         ::testing::Values(classify_case{"permit ether", no_ip, true},
                                           classify_case{"permit ether", arp_frame(), true},
                                           classify_case{"permit ether", tcp6_frame(), true},
                                           classify_case{"permit ip any any", tcp_frame(), true},
                                           classify_case{"permit ip any any", tcp6_frame(), false},
                                           classify_case{"permit ip any any", arp_frame(), false},
                                           classify_case{"permit ip any any", no_ip, false},
                                           classify_case{"permit ipv6 any any", tcp6_frame(), true},
                                           classify_case{"permit ipv6 any any", tcp_frame(), false},
                                           classify_case{"permit tcp any any", tcp_frame(), true},
                                           classify_case{"permit tcp any any", tcp6_frame(), true},
                                           classify_case{"permit tcp any any", udp_frame(), false},
                                           classify_case{"permit tcp any any", arp_frame(), false},
                                           classify_case{"permit udp any any", udp_frame(), true},
                                           classify_case{"permit icmp any any", icmp_frame(), true},
                                           classify_case{"permit icmp any any", udp_frame(), false}));

INSTANTIATE_TEST_SUITE_P(
    Addresses, ServiceClassify,
    ::testing::Values(classify_case{"deny ip host 192.0.2.1 any", tcp_frame(), true},
                      classify_case{"deny ip host 192.0.2.2 any", tcp_frame(), false},
                      classify_case{"deny ip any host 192.0.2.1", tcp_frame(), false},
                      classify_case{"deny ip any 198.51.100.0/24", tcp_frame(), true},
                      classify_case{"deny ip any 198.51.101.0/24", tcp_frame(), false},
                      classify_case{"deny ip 192.0.2.0/31 any", tcp_frame(), true},
                      classify_case{"deny ip 192.0.2.2/31 any", tcp_frame(), false},
                      classify_case{"deny ip 128.0.0.0/1 any", tcp_frame(), true},
                      classify_case{"deny ip 0.0.0.0/1 any", tcp_frame(), false},
                      classify_case{"deny ipv6 any 2001:db8::/32", tcp6_frame(), true},
                      classify_case{"deny ipv6 host 2001:db8::5 any", tcp6_frame(), true},
                      classify_case{"deny ipv6 host 2001:db8::6 any", tcp6_frame(), false},
                      classify_case{"deny ipv6 2001:db8::4/127 any", tcp6_frame(), true},
                      classify_case{"deny ipv6 2001:db8::6/127 any", tcp6_frame(), false}));

INSTANTIATE_TEST_SUITE_P(
    Ports, ServiceClassify,
    ::testing::Values(classify_case{"permit tcp any any port 80", tcp_frame(), true},
                      classify_case{"permit tcp any any port 81", tcp_frame(), false},
                      classify_case{"permit tcp any port 40001 any", tcp_frame(), true},
                      classify_case{"permit tcp any port 40000 any port 80", tcp_frame(), false},
                      classify_case{"permit tcp any any port 79-80", tcp_frame(), true},
                      classify_case{"permit tcp any any port 80-81", tcp_frame(), true},
                      classify_case{"permit tcp any any port 81-90", tcp_frame(), false},
                      classify_case{"permit udp any any port 80",
                                    addresses + is_ipv4 + ipv4_header(17, {0x00, 0x01}) + ports, false},
                      classify_case{"permit udp any any",
                                    addresses + is_ipv4 + ipv4_header(17, {0x00, 0x01}) + ports, true}));

INSTANTIATE_TEST_SUITE_P(
    FrameFields, ServiceClassify,
    ::testing::Values(
        classify_case{"permit ether vlan 10", tcp_frame(), true},
        classify_case{"permit ether vlan 11", tcp_frame(), false},
        classify_case{"permit ether vlan 10", udp_frame(), false},
        classify_case{"permit ether ethertype 0x0806", arp_frame(), true},
        classify_case{"permit ether ethertype 0x0806", tcp_frame(), false},
        classify_case{"permit ip any any dscp 46", tcp_frame(), true},
        classify_case{"permit ip any any dscp 45", tcp_frame(), false},
        classify_case{"permit ether src-mac 02:00:00:00:00:01", tcp_frame(), true},
        classify_case{"permit ether src-mac 02:00:00:00:00:02", tcp_frame(), false},
        classify_case{"permit ether dst-mac 02:00:00:00:00:fe", tcp_frame(), true},
        classify_case{"permit ether dst-mac 02:00:00:00:00:01", tcp_frame(), false},
        classify_case{"permit ether src-mac 02:00:00:00:00:00/ff:ff:ff:ff:ff:f0", tcp_frame(), true},
        classify_case{"permit ether src-mac 02:00:00:00:00:10/ff:ff:ff:ff:ff:f0", tcp_frame(), false}));

frame_bytes tcp_with_flags(u8 flags) {
    frame_bytes frame = tcp_frame();
    frame[frame.size() - rest_of_tcp.size() + 9] = flags;
    return frame;
}

INSTANTIATE_TEST_SUITE_P(
    Wildcards, ServiceClassify,
    ::testing::Values(classify_case{"deny ip 192.0.2.0 0.0.0.255 any", tcp_frame(), true},
                      classify_case{"deny ip 192.0.7.1 0.0.255.0 any", tcp_frame(), true},
                      classify_case{"deny ip 192.0.7.3 0.0.255.0 any", tcp_frame(), false},
                      classify_case{"deny ip any 198.51.100.3 0.0.0.2", tcp_frame(), true},
                      classify_case{"deny ip any 198.51.100.3 0.0.0.4", tcp_frame(), false},
                      classify_case{"deny ipv6 2001:db8::ff05 ::ff00 any", tcp6_frame(), true},
                      classify_case{"deny ipv6 2001:db8::ff06 ::ff00 any", tcp6_frame(), false}));

INSTANTIATE_TEST_SUITE_P(
    PortLists, ServiceClassify,
    ::testing::Values(classify_case{"permit tcp any any port 22,80,443", tcp_frame(), true},
                      classify_case{"permit tcp any any port 22,443", tcp_frame(), false},
                      classify_case{"permit tcp any any port 22,79-81", tcp_frame(), true},
                      classify_case{"permit tcp any any eq http", tcp_frame(), true},
                      classify_case{"permit tcp any any neq 80", tcp_frame(), false},
                      classify_case{"permit tcp any any lt 81", tcp_frame(), true},
                      classify_case{"permit tcp any any gt 80", tcp_frame(), false},
                      classify_case{"permit tcp any port 1,40001 any port 80,81", tcp_frame(), true},
                      classify_case{"permit tcp any port 1,2 any port 80,81", tcp_frame(), false}));

INSTANTIATE_TEST_SUITE_P(
    Flags, ServiceClassify,
    ::testing::Values(classify_case{"permit tcp any any established", tcp_with_flags(0x02), false},
                      classify_case{"permit tcp any any established", tcp_with_flags(0x12), true},
                      classify_case{"permit tcp any any established", tcp_with_flags(0x04), true},
                      classify_case{"permit tcp any any established", tcp_with_flags(0x01), false},
                      classify_case{"permit icmp any any icmp-type echo", icmp_frame(), true},
                      classify_case{"permit icmp any any icmp-type 8 icmp-code 0", icmp_frame(), true},
                      classify_case{"permit icmp any any icmp-type 8 icmp-code 1", icmp_frame(), false},
                      classify_case{"permit icmp any any icmp-type echo-reply", icmp_frame(), false},
                      classify_case{"permit ip any any dscp ef", tcp_frame(), true},
                      classify_case{"permit ip any any dscp cs5", tcp_frame(), false}));

const frame_bytes voice_tag = {0x88, 0xA8, 0xA0, 0x64};  // class 5, VLAN 100
const frame_bytes two_tags = addresses + voice_tag + vlan_10 + is_ipv4 + ipv4_header(17) + ports;
const frame_bytes priority_tag = addresses + frame_bytes{0x81, 0x00, 0x00, 0x00} + is_ipv4 + ipv4_header(17);

INSTANTIATE_TEST_SUITE_P(
    Tags, ServiceClassify,
    ::testing::Values(classify_case{"permit ether vlan 100 inner-vlan 10", two_tags, true},
                      classify_case{"permit ether vlan 10 inner-vlan 100", two_tags, false},
                      classify_case{"permit ether inner-vlan 10", tcp_frame(), false},
                      classify_case{"permit ether cos vo", two_tags, true},
                      classify_case{"permit ether cos be", two_tags, false},
                      classify_case{"permit ether cos be", priority_tag, true},
                      classify_case{"permit ether cos be", udp_frame(), false}));

const frame_bytes later_fragment = addresses + is_ipv4 + ipv4_header(17, {0x00, 0xB9}) + ports;
const frame_bytes first_fragment = addresses + is_ipv4 + ipv4_header(17, {0x20, 0x00}) + ports;

INSTANTIATE_TEST_SUITE_P(Fragments, ServiceClassify,
                         ::testing::Values(classify_case{"deny ip any any fragments", later_fragment, true},
                                           classify_case{"deny ip any any fragments", first_fragment, false},
                                           classify_case{"deny udp any any fragments", later_fragment, true},
                                           classify_case{"deny tcp any any fragments", later_fragment, false},
                                           classify_case{"deny udp any any port 80", later_fragment, false}));

struct time_case {
    const char* range;
    u8 day;
    u16 minute;
    bool matches;
};

class ServiceClassifyTime : public ::testing::TestWithParam<time_case> {};

TEST_P(ServiceClassifyTime, ARuleWithATimeMatchesWithinIt) {
    const time_case& one = GetParam();
    packet seen = packet_of(tcp_frame());
    seen.captured = {one.day, one.minute};
    EXPECT_EQ(matches(rule_of(std::string("permit ip any any time-range ") + one.range), seen), one.matches);
}

constexpr u8 friday = 5;
constexpr u8 saturday = 6;
constexpr u8 sunday = 0;

INSTANTIATE_TEST_SUITE_P(Times, ServiceClassifyTime,
                         ::testing::Values(time_case{"08:00-17:30", friday, 8 * 60 - 1, false},
                                           time_case{"08:00-17:30", friday, 8 * 60, true},
                                           time_case{"08:00-17:30", friday, 17 * 60 + 29, true},
                                           time_case{"08:00-17:30", friday, 17 * 60 + 30, false},
                                           time_case{"mon-fri 08:00-17:30", saturday, 9 * 60, false},
                                           time_case{"fri 22:00-06:00", friday, 23 * 60, true},
                                           time_case{"fri 22:00-06:00", friday, 5 * 60, false},
                                           time_case{"fri 22:00-06:00", saturday, 5 * 60, true},
                                           time_case{"fri 22:00-06:00", saturday, 6 * 60, false},
                                           time_case{"sat 22:00-06:00", sunday, 0, true},
                                           time_case{"sun 00:00-24:00", sunday, 1439, true}));

}  // namespace
}  // namespace scc::service
