// The service as a process, registered with a daemon process, and raw sockets that act as an application.
#include <algorithm>
#include <filesystem>

#include "child_program.h"
#include "common/bytes.h"
#include "sccd_support.h"
#include "service_frames.h"

namespace scc::service {
namespace {

using sccd_test::byte_string;
using sccd_test::daemon_process;
using sccd_test::test_client;
using sccd_test::test_item;
using sccd_test::wire_value;

const std::string flows_pcap = std::string(TEST_DATA_DIR) + "/flows.pcap";
constexpr std::uint32_t app = 3;

class service_process : public sccd_test::child_program {
  public:
    explicit service_process(std::vector<std::string> arguments = {})
        : child_program(SERVICE_PATH, std::move(arguments)) {}

    void wait_until_registered() { lines_before("scc-ss-dev: registered"); }
};

wire_value ace_with_rule(std::uint32_t call, std::uint32_t acl, const char* text) {
    const scc_ace_record record = testing::ace_of(text);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return wire_value(944)
        .u32(0, call)
        .key(4, app, acl)
        .raw(24, byte_string(bytes, bytes + sizeof record))
        .u32(936, 1);
}

TEST(ServiceProcess, RegistersIsLostAndRegistersAgain) {
    daemon_process daemon;
    service_process service;
    EXPECT_EQ(service.line(), "scc-ss-dev: registered");
    daemon.signal(SIGKILL);
    daemon.wait_for_end();
    EXPECT_EQ(service.line(), "scc-ss-dev: lost");
    daemon.start();
    EXPECT_EQ(service.line(), "scc-ss-dev: registered");
}

TEST(ServiceProcess, EndsCleanlyOnTheTerminationSignal) {
    daemon_process daemon;
    service_process service({"--delay", "1000"});
    service.wait_until_registered();
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait_for_end(), 0);
}

TEST(ServiceProcess, RefusesACommandLineThatIsWrong) {
    const char* const not_a_capture = "--pcap=" SERVICE_PATH;
    for (const char* wrong : {"--refuse=131", "--refuse=a:b", "--vlan-ifx=4095:1", "--pcap-on=never",
                              "--pcap-on=applied", "--silent=65536", not_a_capture}) {
        service_process service({wrong});
        const int status = service.wait_for_end();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << wrong;
    }
}

TEST(ServiceProcess, CarriesOutWhatAnApplicationAsksFor) {
    daemon_process daemon;
    service_process service;
    service.wait_until_registered();
    test_client client(daemon, app, 100);
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_with_rule(2, 5, "10 permit tcp any any port 80 id 7")), 0u);
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(3, 5, 1, 1)), 0u);
    EXPECT_EQ(client.result_of(127, sccd_test::user_request(4, 9, 4, 1)), 0u);
    service.signal(SIGUSR2);
    const std::vector<std::string> lines = service.lines_before("scc-ss-dev: end of tables");
    const std::vector<std::string> held = {"acl vdev 0 type 3 id 5 class 1: 0 packets",
                                           "  ace 10 permit tcp any any port 80 id 7: 0 packets",
                                           "  applied in ifx 1 type 3",
                                           "user ifx 4 vid 0 mac 02:00:00:00:00:09 ip 10.0.0.9",
                                           "router acl closed",
                                           "offline detection closed interval 0 threshold 0",
                                           "authentication mode 0"};
    EXPECT_EQ(lines, held);
}

TEST(ServiceProcess, AnswersLaterAndRefusesAsItIsTold) {
    daemon_process daemon;
    service_process service({"--delay", "20", "--refuse", "132:28"});
    service.wait_until_registered();
    test_client client(daemon, app, 100);
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, sccd_test::ace_request(2, 5, 10, 10, 1)), 28u);
    EXPECT_EQ(client.result_of(127, sccd_test::user_request(3, 9, 4, 1)), 0u);
}

// The operations with the least length that each of them needs.
constexpr std::pair<u16, std::size_t> operations[] = {
    {131, 140}, {132, 940}, {133, 244}, {138, 28}, {140, 36},  {141, 36}, {142, 12}, {143, 8},  {148, 16},
    {149, 12},  {150, 20},  {151, 96},  {152, 96}, {153, 12},  {154, 16}, {155, 4},  {158, 24}, {163, 12},
    {201, 9},   {205, 4},   {206, 36},  {209, 16}, {213, 520}, {214, 8},  {312, 36}, {313, 36}, {318, 0}};

TEST(ServiceProcess, SurvivesAnyContentOfEveryOperation) {
    daemon_process daemon;
    service_process service({"--verbose"});
    service.wait_until_registered();
    const auto deliver = [](u16 type, const byte_string& value) {
        const nlohmann::json reply = sccd_test::control(
            {{"do", "notify"}, {"to", 16}, {"type", type}, {"sub", 1}, {"hex", devkit::hex_text(value)}});
        ASSERT_EQ(reply["ok"], true) << reply.dump();
    };
    // Counts of entries that are not there, and counts whose size does not fit into 32 bits.
    for (const u32 count : {1u, 0x20000000u, 0x40000000u, 0x40000001u, 0x80000000u, 0xFFFFFFFFu}) {
        deliver(154, wire_value(16).u32(12, count).bytes());
        deliver(154, wire_value(16 + 87).u32(12, count).bytes());
        deliver(155, wire_value(4).u32(0, count).bytes());
        deliver(155, wire_value(4 + 3).u32(0, count).bytes());
    }
    for (const auto& [type, least_bytes] : operations) {
        for (const u8 fill : {u8{0x00}, u8{0x01}, u8{0x80}, u8{0xFF}}) {
            for (const std::size_t length :
                 {std::size_t{0}, least_bytes / 2, least_bytes, least_bytes + 100}) {
                deliver(type, byte_string(length, fill));
            }
        }
    }
    // Shown in the text of the tables, which is printed whole.
    deliver(214, wire_value(8).u32(4, 4711).bytes());
    EXPECT_NE(service.lines_before("scc-ss-dev: 214 authentication mode 4711: 0").size(), 0u);
    service.signal(SIGUSR2);
    const std::vector<std::string> tables = service.lines_before("scc-ss-dev: end of tables");
    EXPECT_EQ(std::count(tables.begin(), tables.end(), "authentication mode 4711"), 1);
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait_for_end(), 0);
}

TEST(ServiceProcess, TheDaemonGivesUpOnASilentOperation) {
    daemon_process daemon({"--service-timeout", "100"});
    service_process service({"--silent", "131"});
    service.wait_until_registered();
    test_client client(daemon, app, 100);
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 2020u);
}

TEST(ServiceProcess, AServiceThatComesLateIsGivenEverythingOnce) {
    daemon_process daemon;
    test_client client(daemon, app, 100);
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(2, 5, 1, 1)), 0u);
    EXPECT_EQ(client.result_of(127, sccd_test::user_request(3, 9, 4, 1)), 0u);
    service_process service({"--verbose"});
    service.lines_before("scc-ss-dev: 201 data recovery end: 0");
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(4, 6, 1)), 0u);
    EXPECT_EQ(service.line(), "scc-ss-dev: 131 create acl 0/3/6: 0");
    service.signal(SIGUSR2);
    const std::vector<std::string> lines = service.lines_before("scc-ss-dev: end of tables");
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "acl vdev 0 type 3 id 5 class 1: 0 packets");
    EXPECT_EQ(lines[1], "  applied in ifx 1 type 3");
    EXPECT_EQ(lines[2], "acl vdev 0 type 3 id 6 class 1: 0 packets");
    EXPECT_EQ(lines[3], "user ifx 4 vid 0 mac 02:00:00:00:00:09 ip 10.0.0.9");
}

// Receives until there is an item of each of these types and returns the first of each, in their order.
std::vector<test_item> first_of_each(test_client& client, const std::vector<std::uint16_t>& types) {
    std::vector<test_item> found(types.size());
    std::size_t missing = types.size();
    while (missing != 0) {
        const test_item next = client.async.receive();
        if (next.type == 0) {
            break;
        }
        for (std::size_t place = 0; place < types.size(); ++place) {
            if (types[place] != next.type || found[place].type != 0) {
                continue;
            }
            found[place] = next;
            --missing;
        }
    }
    EXPECT_EQ(missing, 0u);
    return found;
}

TEST(ServiceProcess, RunsTheCaptureOnceTheAclIsAppliedAndReportsIt) {
    daemon_process daemon;
    service_process service({"--pcap", flows_pcap, "--pcap-on", "applied", "--pcap-after", "1"});
    service.wait_until_registered();
    test_client client(daemon, app, 100);
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(132, ace_with_rule(2, 5, "10 permit tcp any any port 80 id 7")), 0u);
    client.async.send(133, sccd_test::apply_request(3, 5, 1, 1));
    EXPECT_EQ(
        service.line(),
        "scc-ss-dev: capture: 80 packets, 0 unreadable, 22 matched, 0 denied, 8 flows, 1 move, 0 silent");
    EXPECT_EQ(service.line(), "scc-ss-dev: reported: 10 sent, 0 failed");

    // The result may come after the first notifications.
    const std::vector<test_item> items = first_of_each(client, {401, 110, 407, 211});
    const test_item& result = items[0];
    const test_item& moved = items[1];
    const test_item& counters = items[2];
    const test_item& flow = items[3];
    EXPECT_EQ(result.part(0, 8), (byte_string{3, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(moved.part(8, 16), (byte_string{1, 0, 0, 0, 20, 0, 10, 0, 20, 0, 0x02, 0, 0, 0, 0, 0x08}));
    EXPECT_EQ(counters.part(4, 16), (byte_string{0, 0, 0, 0, 3, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(counters.u32(20), 1u);
    EXPECT_EQ(counters.u64(24), 7u);
    EXPECT_EQ(counters.u64(32), 22u);
    EXPECT_EQ(flow.part(16, 4), (byte_string{192, 0, 2, 1}));
    EXPECT_EQ(flow.part(54, 6), (byte_string{0x02, 0, 0, 0, 0, 0x01}));
    EXPECT_EQ(flow.u64(64), 11u);
    EXPECT_EQ(flow.u64(72), 638u);
}

TEST(ServiceProcess, RunsTheCaptureOnItsSignal) {
    daemon_process daemon;
    service_process service({"--pcap", flows_pcap});
    service.wait_until_registered();
    service.signal(SIGUSR1);
    EXPECT_EQ(
        service.line(),
        "scc-ss-dev: capture: 80 packets, 0 unreadable, 0 matched, 0 denied, 8 flows, 1 move, 0 silent");
}

}  // namespace
}  // namespace scc::service
