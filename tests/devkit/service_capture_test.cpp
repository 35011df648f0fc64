// The capture data/flows.pcap was made by scripts/make_capture.py --packets 80: a packet every 100 ms from
// second 1700000000 on; that script's docstring and output list its flows and their numbers.
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "service/capture.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using namespace testing;
namespace fs = std::filesystem;

const std::string flows_pcap = std::string(TEST_DATA_DIR) + "/flows.pcap";

const flow* flow_of(const capture_report& report, u8 last_mac_byte) {
    for (const flow& one : report.flows) {
        if (one.user.mac[5] == last_mac_byte) {
            return &one;
        }
    }
    return nullptr;
}

class ServiceCapture : public ::testing::Test {
  protected:
    void hold(u32 acl_id, std::initializer_list<const char*> aces, const scc_acl_apply_record& place) {
        table_.locked([&](forwarding_table::contents& held) {
            ASSERT_EQ(held.acls.create(key_of(acl_id)), 0u);
            for (const char* text : aces) {
                ASSERT_EQ(held.acls.add_ace(key_of(acl_id), ace_of(text)), 0u);
            }
            ASSERT_EQ(held.acls.apply(place), 0u);
        });
    }

    capture_report run() { return run_capture(flows_pcap, ingress_, table_); }

    forwarding_table table_;
    ingress_map ingress_{3, {}};
};

TEST_F(ServiceCapture, EveryAceCountsThePacketsOfItsFlows) {
    hold(5,
         {"10 deny tcp any any port 443 id 1", "20 permit tcp any any port 80 id 2",
          "30 permit icmp any any id 3", "40 permit udp any 198.51.100.53/32 port 53 id 4",
          "50 permit ether ethertype 0x0806 id 5", "60 deny ip any any id 6"},
         application_of(5, 3));
    const capture_report report = run();
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.packets, 80u);
    EXPECT_EQ(report.unreadable, 0u);
    EXPECT_EQ(report.matched, 80u);
    EXPECT_EQ(report.denied, 26u);
    ASSERT_EQ(report.acls.size(), 1u);
    EXPECT_EQ(report.acls[0].key.acl_id, 5u);
    std::vector<u64> packets;
    for (const scc_ace_counter& ace : report.acls[0].aces) {
        packets.push_back(ace.packets);
    }
    EXPECT_EQ(packets, (std::vector<u64>{11, 22, 11, 11, 10, 15}));
}

TEST_F(ServiceCapture, EachMatchOfAnAceWithLogIsALine) {
    hold(1, {"10 deny icmp any any log remark \"no ping\"", "20 permit ip any any"}, application_of(1, 0));
    const capture_report report = run();
    ASSERT_EQ(report.logged.size(), report.denied);
    ASSERT_FALSE(report.logged.empty());
    EXPECT_EQ(report.logged[0],
              "packet 4 at 1700000000.300000: acl 1 type 2: 10 deny icmp any any log remark \"no ping\"");
    EXPECT_EQ(report.unlogged, 0u);
}

// The capture begins on a Tuesday at 22:13:20 UTC.
TEST_F(ServiceCapture, ATimeRangeComparesTheTimeOfTheCapture) {
    setenv("TZ", "UTC", 1);
    tzset();
    hold(1, {"10 permit ip any any time-range tue 22:00-22:30"}, application_of(1, 0));
    hold(2, {"10 permit ip any any time-range wed 22:00-22:30"}, application_of(2, 0));
    hold(3, {"10 permit ip any any"}, application_of(3, 0));
    const capture_report report = run();
    ASSERT_EQ(report.acls.size(), 3u);
    EXPECT_GT(report.acls[2].aces[0].packets, 0u);
    EXPECT_EQ(report.acls[0].aces[0].packets, report.acls[2].aces[0].packets);
    EXPECT_EQ(report.acls[1].aces[0].packets, 0u);
}

TEST_F(ServiceCapture, TheVlanDecidesTheInterface) {
    ingress_.ifx_of_vlan = {{10, 7}, {20, 8}};
    hold(5, {"10 permit ether id 1"}, application_of(5, 7));
    hold(6, {"10 permit ether id 1"}, application_of(6, 8));
    hold(7, {"10 permit ether id 1"}, application_of(7, 3));
    const capture_report report = run();
    ASSERT_EQ(report.acls.size(), 3u);
    EXPECT_EQ(report.acls[0].aces[0].packets, 38u);
    EXPECT_EQ(report.acls[1].aces[0].packets, 32u);
    EXPECT_EQ(report.acls[2].aces[0].packets, 10u);
}

TEST_F(ServiceCapture, EachSourceIsAFlowWhenThereAreNoUsers) {
    const capture_report report = run();
    ASSERT_EQ(report.flows.size(), 8u);
    const flow* web = flow_of(report, 1);
    ASSERT_NE(web, nullptr);
    EXPECT_EQ(web->packets, 11u);
    EXPECT_EQ(web->bytes, 638u);
    EXPECT_EQ(flow_of(report, 5)->bytes, 858u);
    EXPECT_EQ(flow_of(report, 5)->user.family, 3u);
    EXPECT_EQ(flow_of(report, 7)->packets, 5u);
}

TEST_F(ServiceCapture, OnlyUsersAreReportedWhenThereAreAny) {
    table_.locked([](forwarding_table::contents& held) { held.nac.add_user(user_of(4, 9)); });
    const capture_report report = run();
    ASSERT_EQ(report.flows.size(), 1u);
    EXPECT_EQ(report.flows[0].packets, 11u);
    EXPECT_EQ(report.flows[0].bytes, 506u);
    EXPECT_EQ(report.flows[0].user.vid, 20);
}

TEST_F(ServiceCapture, TheHostThatChangesItsVlanHasMovedOnce) {
    const capture_report report = run();
    ASSERT_EQ(report.moves.size(), 1u);
    EXPECT_EQ(report.moves[0].mac[5], 8);
    EXPECT_EQ(report.moves[0].vid_before, 10);
    EXPECT_EQ(report.moves[0].vid_after, 20);
    EXPECT_EQ(report.moves[0].ifx, 3u);
}

TEST_F(ServiceCapture, TheHostThatStopsFallsSilentWithItsLastPacketAndTheInterval) {
    table_.locked([](forwarding_table::contents& held) { held.nac.set_offline_detection({true, 4, 0}); });
    const capture_report report = run();
    ASSERT_EQ(report.silences.size(), 1u);
    EXPECT_EQ(report.silences[0].user.mac[5], 7);
    EXPECT_EQ(report.silences[0].packets, 5u);
    EXPECT_EQ(report.silences[0].time_us, 1'700'000'007'800'000u);
}

TEST_F(ServiceCapture, AMissingFileIsReported) {
    EXPECT_NE(run_capture("/proc/none/none.pcap", ingress_, table_).error, "");
}

// The magic number, version 2.4, and a link type.
std::string write_capture(const fs::path& path, const frame_bytes& link_type, const frame_bytes& packets) {
    const frame_bytes head =
        frame_bytes{0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0};
    const frame_bytes whole = head + link_type + packets;
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(whole.data()), static_cast<std::streamsize>(whole.size()));
    return path.string();
}

const frame_bytes link_ethernet = {1, 0, 0, 0};
// At second 1, 13 bytes kept of 60 on the wire.
const frame_bytes short_packet =
    frame_bytes{1, 0, 0, 0, 0, 0, 0, 0, 13, 0, 0, 0, 60, 0, 0, 0} + frame_bytes(13, 0);

TEST_F(ServiceCapture, APacketShorterThanAnEthernetHeaderIsCountedAsUnreadable) {
    const fs::path path = fs::path(::testing::TempDir()) / "scc_service_short.pcap";
    const capture_report report =
        run_capture(write_capture(path, link_ethernet, short_packet), ingress_, table_);
    fs::remove(path);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(report.packets, 1u);
    EXPECT_EQ(report.unreadable, 1u);
    EXPECT_TRUE(report.flows.empty());
}

TEST_F(ServiceCapture, ACaptureThatBreaksOffKeepsWhatWasRead) {
    const fs::path path = fs::path(::testing::TempDir()) / "scc_service_broken.pcap";
    const capture_report report = run_capture(
        write_capture(path, link_ethernet, short_packet + frame_bytes{1, 0, 0}), ingress_, table_);
    fs::remove(path);
    EXPECT_NE(report.error, "");
    EXPECT_EQ(report.packets, 1u);
}

TEST_F(ServiceCapture, ACaptureOfAnotherLinkTypeIsRefused) {
    const fs::path path = fs::path(::testing::TempDir()) / "scc_service_raw.pcap";
    const capture_report report = run_capture(write_capture(path, {101, 0, 0, 0}, {}), ingress_, table_);
    fs::remove(path);
    EXPECT_NE(report.error.find("not an Ethernet capture"), std::string::npos);
}

}  // namespace
}  // namespace scc::service
