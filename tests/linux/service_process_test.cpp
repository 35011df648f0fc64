// scc-ss-linux as a process, registered with a daemon process, with frames through a bridge. The application
// is a raw socket.
#include <filesystem>
#include <fstream>
#include <optional>

#include "devkit/child_program.h"
#include "devkit/sccd_support.h"
#include "kernel_support.h"
#include "msg/protocol.h"

namespace scc::kernel {
namespace {

using namespace testing;
using sccd_test::daemon_process;
using sccd_test::test_client;
using sccd_test::test_item;
using sccd_test::wire_value;

constexpr std::uint32_t app = 3;
constexpr std::uint32_t watching_app = 4;

class service_process : public sccd_test::child_program {
  public:
    explicit service_process(std::vector<std::string> arguments)
        : child_program(SERVICE_LINUX_PATH, std::move(arguments)) {}

    // Registered, and the recovery that follows is over.
    void wait_until_ready() { lines_before("scc-ss-linux: 201 data recovery end: 0"); }
    int end() {
        signal(SIGTERM);
        return wait_for_end();
    }
};

std::string map_in(const daemon_process& daemon, const std::string& text = "ifx 1 a0\nifx 2 b0\nifx 3 c0\n") {
    const std::string path = daemon.directory() + "/map";
    std::ofstream(path) << text;
    return path;
}

wire_value ace_with_rule(std::uint32_t call, std::uint32_t acl, const std::string& text) {
    const scc_ace_record record = ace_of(text);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return wire_value(944)
        .u32(0, call)
        .key(4, app, acl)
        .raw(24, sccd_test::byte_string(bytes, bytes + sizeof record))
        .u32(936, 1);
}

// From 02:00:00:00:00:09, to an address that no bridge knows.
const frame_bytes frame = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 9, 0x88, 0xB5, 1, 1};

// What an application is told. Reports come in an order and a number that depend on when the service read the
// counters.
class notifications {
  public:
    explicit notifications(sccd_test::wire_socket& wire) : wire_(wire) {}

    // The first item of this type that is the wanted one, whether it came before or not.
    template <class IsWanted>
    test_item first(std::uint16_t type, IsWanted is_wanted) {
        for (std::size_t next = 0;; ++next) {
            if (next == items_.size()) {
                items_.push_back(wire_.receive());
            }
            const test_item& item = items_[next];
            if (item.type == 0) {
                ADD_FAILURE() << "the item of type " << type << " did not come";
                return item;
            }
            if (item.type == type && is_wanted(item)) {
                return item;
            }
        }
    }

  private:
    sccd_test::wire_socket& wire_;
    std::vector<test_item> items_;
};

// A daemon, interfaces 1 to 3 on a bridge, and the service, not started yet.
class LinuxServiceProcess : public ::testing::Test {
  protected:
    void SetUp() override {
        NEED_A_NAMESPACE();
        make_bridge();
        daemon.emplace();
    }

    // Its arguments; reports come so many seconds apart, or never.
    [[nodiscard]] std::vector<std::string> with_reports(const std::string& seconds = "0") const {
        return {"--map", map_in(*daemon), "--verbose", "--report", seconds};
    }

    // The application creates ACL 5, of this ACE alone.
    static void create_acl(test_client& client, const std::string& ace) {
        EXPECT_EQ(client.result_of(131, sccd_test::acl_request(1, 5, 1)), 0u);
        EXPECT_EQ(client.result_of(132, ace_with_rule(2, 5, ace)), 0u);
    }

    std::optional<daemon_process> daemon;
};

TEST_F(LinuxServiceProcess, RefusesACommandLineOrMapThatIsWrong) {
    const auto exit_of = [](std::vector<std::string> arguments) {
        return WEXITSTATUS(service_process(std::move(arguments)).wait_for_end());
    };
    EXPECT_EQ(exit_of({}), 2);
    EXPECT_EQ(exit_of({"--map", "x", "--flush"}), 2);
    EXPECT_EQ(exit_of({"--map", map_in(*daemon), "--report", "-1"}), 2);
    EXPECT_EQ(exit_of({"--map", "/nowhere/map"}), 1);
    EXPECT_EQ(exit_of({"--map", map_in(*daemon, "ifx one a0\n")}), 1);
    EXPECT_EQ(exit_of({"--map", map_in(*daemon, "ifx 1 no-such-port\n")}), 1);
    EXPECT_EQ(exit_of({"--flush"}), 0);
}

TEST_F(LinuxServiceProcess, ItsRulesOutliveItUntilTheyAreFlushed) {
    service_process service(with_reports());
    service.wait_until_ready();
    test_client client(*daemon, app, 100);
    create_acl(client, "10 deny ether");
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(3, 5, 1, 1)), 0u);
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(4, 5, 7, 1)), 95u);
    stay_on_one_processor();
    const raw_socket in("a1");
    const raw_socket around("c1");
    const raw_socket out("b1");
    frame_bytes other = frame;
    other[11] = 10;
    const auto expect_drop = [&] {
        in.send(frame);
        around.send(other);
        EXPECT_EQ(out.receive(20'000), other);
    };
    expect_drop();
    service.signal(SIGKILL);
    service.wait_for_end();
    expect_drop();
    service_process successor(with_reports());
    successor.wait_until_ready();
    expect_drop();
    const test_item counter =
        client.query(313, wire_value(40).u32(0, 5).key(4, app, 5).u64(24, 10).u32(32, 1));
    EXPECT_EQ(counter.type, 407);
    EXPECT_EQ(counter.u64(32), 3u);
    EXPECT_EQ(counter.u32(40), 0u);
    EXPECT_EQ(successor.end(), 0);
    expect_drop();
    EXPECT_EQ(service_process({"--flush"}).wait_for_end(), 0);
    in.send(frame);
    EXPECT_EQ(out.receive(20'000), frame);
}

TEST_F(LinuxServiceProcess, AnAclBoundToAUserDropsThatUsersPackets) {
    service_process service(with_reports());
    service.wait_until_ready();
    test_client client(*daemon, app, 100);
    create_acl(client, "10 deny ether");
    // What enters interface 1 from 02:00:00:00:00:09 and 10.0.0.9.
    const wire_value user =
        wire_value(224).u32(8, 1).raw(32, {2, 0, 0, 0, 0, 9}).key(40, app, 5).raw(56, {10, 0, 0, 9});
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 3).u32(216, 1)), 0u);
    stay_on_one_processor();
    const raw_socket in("a1");
    const raw_socket out("b1");
    const auto packet_from = [](u8 mac, u8 ip) { return ipv4_frame(mac, ip, 1, 1); };
    const auto expect_drop = [&] {
        in.send(packet_from(9, 9));
        in.send(packet_from(9, 8));
        in.send(packet_from(8, 9));
        EXPECT_EQ(out.receive(20'000), packet_from(9, 8));
        EXPECT_EQ(out.receive(20'000), packet_from(8, 9));
    };
    expect_drop();
    service.signal(SIGKILL);
    service.wait_for_end();
    expect_drop();
    service_process successor(with_reports());
    successor.wait_until_ready();
    expect_drop();
    const test_item counter = client.query(312, wire_value(40).key(4, app, 5).u32(32, 1));
    EXPECT_EQ(counter.u64(32), 3u);
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 4)), 0u);
    in.send(packet_from(9, 9));
    EXPECT_EQ(out.receive(20'000), packet_from(9, 9));
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 5).u32(216, 1)), 0u);
    expect_drop();
    EXPECT_EQ(client.result_of(137, wire_value(232).u32(0, 6).key(216, app, 5)), 0u);
    in.send(packet_from(9, 9));
    EXPECT_EQ(out.receive(20'000), packet_from(9, 9));
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 7).u32(216, 1)), 0u);
    expect_drop();
    EXPECT_EQ(client.result_of(131, sccd_test::acl_request(8, 5, 0)), 0u);
    in.send(packet_from(9, 9));
    EXPECT_EQ(out.receive(20'000), packet_from(9, 9));
    EXPECT_EQ(successor.end(), 0);
}

TEST_F(LinuxServiceProcess, ReportsHitsFlowsSilenceAndMoves) {
    service_process service(with_reports("1"));
    service.wait_until_ready();
    test_client client(*daemon, app, 100);
    create_acl(client, "10 permit ether id 77");
    test_client watcher(*daemon, watching_app, 101);
    EXPECT_EQ(client.result_of(133, sccd_test::apply_request(3, 5, 1, 1)), 0u);
    // The user 02:00:00:00:00:09 on interface 1, without an address.
    EXPECT_EQ(client.result_of(
                  127, wire_value(744).u32(0, 4).u32(8, 1).raw(16, {2, 0, 0, 0, 0, 9}).u32(24, 6).u32(32, 1)),
              0u);
    const raw_socket port_a("a1");
    const raw_socket port_b("b1");
    port_a.send(frame);
    port_a.send(frame);

    const auto any = [](const test_item&) { return true; };
    notifications told(watcher.async);
    const test_item hits = told.first(msg::ace_counter, [](auto& item) { return item.u64(32) == 2; });
    EXPECT_EQ(hits.u32(20), 1u);
    EXPECT_EQ(hits.u64(24), 77u);
    const test_item flow = told.first(msg::flow, [](auto& item) { return item.u64(64) == 2; });
    EXPECT_EQ(flow.u32(48), 1u);
    EXPECT_EQ(flow.part(54, 6), (sccd_test::byte_string{2, 0, 0, 0, 0, 9}));

    port_b.send(frame);
    const test_item move = told.first(msg::d1x_addr_move, any);
    EXPECT_EQ(move.u32(8), 2u);
    EXPECT_EQ(move.part(18, 6), (sccd_test::byte_string{2, 0, 0, 0, 0, 9}));

    client.async.send(166, wire_value(16).u32(0, 5).u8(4, 1).u32(8, 1).u32(12, 0));
    EXPECT_EQ(notifications(client.async).first(msg::call_ret, any).u32(4), 0u);
    const test_item silence = told.first(msg::noflow_offline, any);
    EXPECT_EQ(silence.u32(48), 1u);
    EXPECT_EQ(silence.u64(64), 2u);
    EXPECT_EQ(service.end(), 0);
}

TEST_F(LinuxServiceProcess, AStrangerOnASecuredInterfaceIsAViolation) {
    NEED_THE_PACKET_LOG();
    service_process service(with_reports());
    service.wait_until_ready();
    test_client client(*daemon, app, 100);
    test_client watcher(*daemon, watching_app, 101);
    // Port security on interface 1, with the user 02:00:00:00:00:09 there.
    const wire_value closing = wire_value(744).u32(8, 1).u32(24, 6).u32(32, 1);
    EXPECT_EQ(client.result_of(126, wire_value(closing).u32(0, 1)), 0u);
    EXPECT_EQ(client.result_of(127, wire_value(closing).u32(0, 2).raw(16, {2, 0, 0, 0, 0, 9})), 0u);
    const raw_socket in("a1");
    const raw_socket around("b1");
    frame_bytes stranger = frame;
    stranger[11] = 8;
    frame_bytes other = stranger;
    other[11] = 7;
    in.send(frame);
    around.send(other);
    in.send(stranger);
    stranger[11] = 6;
    stranger.insert(stranger.begin() + 12, {0x81, 0, 0, 20});
    in.send(stranger);

    notifications told(watcher.async);
    const auto any = [](const test_item&) { return true; };
    const test_item violation = told.first(msg::port_violate_notify, any);
    EXPECT_EQ(violation.value, wire_value(64).u32(4, 1).raw(10, {2, 0, 0, 0, 0, 8}).u8(60, 1).bytes());
    const test_item tagged =
        told.first(msg::port_violate_notify, [](auto& item) { return item.part(15, 1)[0] != 8; });
    EXPECT_EQ(tagged.value,
              wire_value(64).u32(4, 1).u16(8, 20).raw(10, {2, 0, 0, 0, 0, 6}).u8(60, 1).bytes());
    const test_item move = told.first(msg::d1x_addr_move, any);
    EXPECT_EQ(move.part(18, 6), (sccd_test::byte_string{2, 0, 0, 0, 0, 8}));
    EXPECT_EQ(service.end(), 0);
}

}  // namespace
}  // namespace scc::kernel
