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

}  // namespace
}  // namespace scc::service
