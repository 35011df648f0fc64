#include "service/packet.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

TEST(ServicePacket, ATaggedTcpPacketTellsItsVlanAddressesAndPorts) {
    const packet found = packet_of(tcp_frame());
    EXPECT_EQ(found.destination_mac, (ace::mac_bytes{0x02, 0, 0, 0, 0, 0xFE}));
    EXPECT_EQ(found.source_mac, (ace::mac_bytes{0x02, 0, 0, 0, 0, 0x01}));
    EXPECT_EQ(found.vid, 10);
    EXPECT_EQ(found.ether_type, 0x0800);
    EXPECT_EQ(found.network, network_kind::ipv4);
    EXPECT_EQ(found.source_ip, (ace::ip_bytes{192, 0, 2, 1}));
    EXPECT_EQ(found.destination_ip, (ace::ip_bytes{198, 51, 100, 1}));
    EXPECT_EQ(found.dscp, 46);
    EXPECT_EQ(found.protocol, 6);
    EXPECT_TRUE(found.has_ports);
    EXPECT_EQ(found.source_port, 40001);
    EXPECT_EQ(found.destination_port, 80);
}

TEST(ServicePacket, TheOuterOfTwoTagsIsTheVlan) {
    const frame_bytes service_tag = {0x88, 0xA8, 0xE0, 0x64};
    const packet found = packet_of(addresses + service_tag + vlan_10 + is_ipv4 + ipv4_header(17) + ports);
    EXPECT_EQ(found.vid, 100);
    EXPECT_EQ(found.ether_type, 0x0800);
    EXPECT_TRUE(found.has_ports);
}

TEST(ServicePacket, Ipv4OptionsStandBeforeThePorts) {
    frame_bytes header = ipv4_header(17);
    header[0] = 0x46;
    const packet found = packet_of(addresses + is_ipv4 + header + frame_bytes{1, 1, 1, 0} + ports);
    EXPECT_EQ(found.source_port, 40001);
    EXPECT_EQ(found.destination_port, 80);
}

TEST(ServicePacket, ALaterFragmentHasNoPorts) {
    const packet found = packet_of(addresses + is_ipv4 + ipv4_header(17, {0x00, 0xB9}) + ports);
    EXPECT_TRUE(found.later_fragment);
    EXPECT_FALSE(found.has_ports);
}

TEST(ServicePacket, TheFirstFragmentHasPorts) {
    const packet found = packet_of(addresses + is_ipv4 + ipv4_header(17, {0x20, 0x00}) + ports);
    EXPECT_FALSE(found.later_fragment);
    EXPECT_EQ(found.destination_port, 80);
}

TEST(ServicePacket, AnIcmpPacketHasNoPorts) {
    const packet found = packet_of(icmp_frame());
    EXPECT_EQ(found.protocol, 1);
    EXPECT_FALSE(found.has_ports);
}

TEST(ServicePacket, AnIpv6PacketTellsItsAddressesAndPorts) {
    const packet found = packet_of(tcp6_frame());
    EXPECT_EQ(found.network, network_kind::ipv6);
    EXPECT_EQ(found.source_ip,
              (ace::ip_bytes{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x05}));
    EXPECT_EQ(found.destination_ip,
              (ace::ip_bytes{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80}));
    EXPECT_EQ(found.dscp, 46);
    EXPECT_EQ(found.protocol, 6);
    EXPECT_EQ(found.destination_port, 80);
}

TEST(ServicePacket, TheProtocolOfIpv6StandsAfterItsExtensionHeaders) {
    const frame_bytes hop_by_hop = {60, 0, 1, 4, 0, 0, 0, 0};
    const frame_bytes destination_options = {17, 1, 1, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const packet found =
        packet_of(addresses + is_ipv6 + ipv6_header(0) + hop_by_hop + destination_options + ports);
    EXPECT_EQ(found.protocol, 17);
    EXPECT_EQ(found.source_port, 40001);
}

TEST(ServicePacket, ALaterFragmentOfIpv6TellsItsProtocolWithoutPorts) {
    const frame_bytes fragment = {17, 0, 0x00, 0x08, 0, 0, 0, 1};
    const packet found = packet_of(addresses + is_ipv6 + ipv6_header(44) + fragment + ports);
    EXPECT_EQ(found.protocol, 17);
    EXPECT_TRUE(found.later_fragment);
    EXPECT_FALSE(found.has_ports);
}

TEST(ServicePacket, AnExtensionHeaderThatEndsEarlyEndsTheWalk) {
    const frame_bytes too_long = {17, 9, 0, 0, 0, 0, 0, 0};
    const packet found = packet_of(addresses + is_ipv6 + ipv6_header(0) + too_long);
    EXPECT_EQ(found.protocol, 0);
    EXPECT_FALSE(found.has_ports);
}

TEST(ServicePacket, AnArpPacketTellsSenderAndTarget) {
    const packet found = packet_of(arp_frame());
    EXPECT_EQ(found.network, network_kind::arp);
    EXPECT_EQ(found.source_ip, (ace::ip_bytes{192, 0, 2, 1}));
    EXPECT_EQ(found.destination_ip, (ace::ip_bytes{192, 0, 2, 254}));
}

TEST(ServicePacket, ANetworkHeaderThatEndsEarlyLeavesTheAddressesOut) {
    frame_bytes frame = tcp_frame();
    frame.resize(37);
    const packet found = packet_of(frame);
    EXPECT_EQ(found.vid, 10);
    EXPECT_EQ(found.ether_type, 0x0800);
    EXPECT_EQ(found.network, network_kind::other);
}

TEST(ServicePacket, ATransportHeaderThatEndsEarlyHasNoPorts) {
    frame_bytes frame = tcp_frame();
    frame.resize(41);
    const packet found = packet_of(frame);
    EXPECT_EQ(found.network, network_kind::ipv4);
    EXPECT_FALSE(found.has_ports);
}

TEST(ServicePacket, EveryShorterPieceOfAFrameIsReadWithoutHarm) {
    for (const frame_bytes& whole : {tcp_frame(), tcp6_frame(), arp_frame()}) {
        for (std::size_t len = 14; len < whole.size(); ++len) {
            const frame_bytes piece(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(len));
            EXPECT_TRUE(parse_packet(piece).has_value()) << len;
        }
    }
}

TEST(ServicePacket, LessThanAnEthernetHeaderIsNoPacket) {
    EXPECT_FALSE(parse_packet(frame_bytes(13, 0)).has_value());
}

}  // namespace
}  // namespace scc::service
