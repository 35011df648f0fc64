#include "service/traffic.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;

constexpr u64 second_us = 1'000'000;

packet packet_from(u8 last_mac_byte, u8 last_ip_byte = 1) {
    packet sent = packet_of(tcp_frame());
    sent.source_mac[5] = last_mac_byte;
    sent.source_ip[3] = last_ip_byte;
    return sent;
}

nac_user nac_user_of(u8 last_mac_byte) {
    return read_user_entry(user_of(last_mac_byte, 4));
}

TEST(ServiceTraffic, AUserIsMeteredByItsMacAddress) {
    traffic_meter meter({nac_user_of(1), nac_user_of(2)}, {});
    meter.count(packet_from(1), {4, 10}, 0, 100);
    meter.count(packet_from(1, 77), {4, 10}, 1, 60);
    meter.count(packet_from(3), {4, 10}, 2, 60);
    const std::vector<flow> flows = meter.flows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].packets, 2u);
    EXPECT_EQ(flows[0].bytes, 160u);
    EXPECT_EQ(flows[1].packets, 0u);
}

TEST(ServiceTraffic, AFlowNamesItsUser) {
    traffic_meter meter({nac_user_of(1)}, {});
    meter.count(packet_from(1), {6, 10}, 0, 100);
    const scc_flow_user user = meter.flows().at(0).user;
    EXPECT_EQ(user.ifx, 6u);
    EXPECT_EQ(user.vid, 10);
    EXPECT_EQ(frame_bytes(user.mac, user.mac + 6), (frame_bytes{0x02, 0, 0, 0, 0, 1}));
    EXPECT_EQ(frame_bytes(user.address, user.address + 5), (frame_bytes{192, 0, 2, 1, 0}));
    EXPECT_EQ(frame_bytes(user.mask, user.mask + 5), (frame_bytes{255, 255, 255, 255, 0}));
    EXPECT_EQ(user.family, 1u);
}

TEST(ServiceTraffic, WithoutUsersEverySourceIsOne) {
    traffic_meter meter({}, {});
    meter.count(packet_from(1, 1), {4, 10}, 0, 100);
    meter.count(packet_from(1, 2), {4, 10}, 0, 100);
    meter.count(packet_from(1, 1), {4, 10}, 0, 50);
    meter.count(packet_of(tcp6_frame()), {4, 0}, 0, 70);
    const std::vector<flow> flows = meter.flows();
    ASSERT_EQ(flows.size(), 3u);
    EXPECT_EQ(flows[0].packets, 2u);
    EXPECT_EQ(flows[0].bytes, 150u);
    EXPECT_EQ(flows[1].packets, 1u);
    EXPECT_EQ(flows[2].user.family, 3u);
    EXPECT_EQ(flows[2].user.address[15], 0x05);
    EXPECT_EQ(flows[2].user.mask[15], 0xFF);
}

TEST(ServiceTraffic, AnAddressThatChangesItsVlanHasMoved) {
    traffic_meter meter({}, {});
    meter.count(packet_from(1), {4, 10}, 0, 100);
    meter.count(packet_from(1), {4, 10}, 1, 100);
    EXPECT_TRUE(meter.moves().empty());
    meter.count(packet_from(1), {5, 20}, 2, 100);
    ASSERT_EQ(meter.moves().size(), 1u);
    const scc_address_move& move = meter.moves()[0];
    EXPECT_EQ(move.ifx, 5u);
    EXPECT_EQ(move.vid, 20);
    EXPECT_EQ(move.vid_before, 10);
    EXPECT_EQ(move.vid_after, 20);
    EXPECT_EQ(frame_bytes(move.mac, move.mac + 6), (frame_bytes{0x02, 0, 0, 0, 0, 1}));
}

TEST(ServiceTraffic, AnAddressThatChangesItsInterfaceAloneHasMoved) {
    traffic_meter meter({}, {});
    meter.count(packet_from(1), {4, 10}, 0, 100);
    meter.count(packet_from(1), {5, 10}, 1, 100);
    ASSERT_EQ(meter.moves().size(), 1u);
    EXPECT_EQ(meter.moves()[0].ifx, 5u);
}

TEST(ServiceTraffic, AGroupAddressAsSourceIsNobody) {
    traffic_meter meter({}, {});
    packet strange = packet_from(1);
    strange.source_mac[0] = 0x03;
    meter.count(strange, {4, 10}, 0, 100);
    EXPECT_TRUE(meter.flows().empty());
    EXPECT_FALSE(meter.last_seen(strange.source_mac).has_value());
}

TEST(ServiceTraffic, AnAddressIsFoundWhereItWasLastSeen) {
    traffic_meter meter({}, {});
    const packet sent = packet_from(1);
    EXPECT_FALSE(meter.last_seen(sent.source_mac).has_value());
    meter.count(sent, {4, 10}, 0, 100);
    EXPECT_EQ(meter.last_seen(sent.source_mac), (station{4, 10}));
}

TEST(ServiceTraffic, AUserWithoutAPacketForTheIntervalIsSilentOnce) {
    traffic_meter meter({nac_user_of(1), nac_user_of(2)}, {true, 3, 0});
    meter.count(packet_from(1), {4, 10}, 100 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 101 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 103 * second_us, 60);
    meter.finish();
    ASSERT_EQ(meter.silences().size(), 1u);
    const silence& silent = meter.silences()[0];
    EXPECT_EQ(silent.user.mac[5], 1);
    EXPECT_EQ(silent.packets, 1u);
    EXPECT_EQ(silent.time_us, 103 * second_us);
}

TEST(ServiceTraffic, JustLessThanTheIntervalIsNoSilence) {
    traffic_meter meter({nac_user_of(1)}, {true, 3, 0});
    meter.count(packet_from(1), {4, 10}, 100 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 103 * second_us - 1, 60);
    meter.finish();
    EXPECT_TRUE(meter.silences().empty());
}

TEST(ServiceTraffic, AUserThatWasNeverHeardIsSilentFromTheFirstPacketOn) {
    traffic_meter meter({nac_user_of(1)}, {true, 3, 0});
    meter.count(packet_from(2), {4, 10}, 100 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 110 * second_us, 60);
    meter.finish();
    ASSERT_EQ(meter.silences().size(), 1u);
    EXPECT_EQ(meter.silences()[0].packets, 0u);
    EXPECT_EQ(meter.silences()[0].time_us, 103 * second_us);
}

TEST(ServiceTraffic, EverySilenceBetweenPacketsCountsInTheOrderOfTime) {
    traffic_meter meter({nac_user_of(1), nac_user_of(2)}, {true, 3, 0});
    meter.count(packet_from(1), {4, 10}, 100 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 101 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 109 * second_us, 60);
    meter.count(packet_from(1), {4, 10}, 110 * second_us, 60);
    meter.finish();
    ASSERT_EQ(meter.silences().size(), 2u);
    EXPECT_EQ(meter.silences()[0].time_us, 103 * second_us);
    EXPECT_EQ(meter.silences()[1].time_us, 104 * second_us);
}

TEST(ServiceTraffic, WithDetectionClosedNobodyIsSilent) {
    traffic_meter meter({nac_user_of(1)}, {false, 3, 0});
    meter.count(packet_from(2), {4, 10}, 100 * second_us, 60);
    meter.count(packet_from(2), {4, 10}, 200 * second_us, 60);
    meter.finish();
    EXPECT_TRUE(meter.silences().empty());
}

}  // namespace
}  // namespace scc::service
