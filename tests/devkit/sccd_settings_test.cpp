#include "sccd_support.h"

namespace sccd_test {
namespace {

using nlohmann::json;

const byte_string mac{0x02, 0, 0, 0, 0, 9};

// A configuration record of interface 4, VLAN 20.
wire_value config_request(std::uint32_t call, std::uint32_t value, std::uint32_t operation,
                          std::uint32_t app_type = 0) {
    return wire_value(744)
        .u32(0, call)
        .u32(8, 4)
        .u32(12, 20)
        .raw(16, mac)
        .u32(24, app_type)
        .u32(28, value)
        .u32(32, operation);
}

json config_fields(std::uint32_t value, std::uint32_t operation, std::uint32_t app_type = 0) {
    return {{"ifx", 4},
            {"vid", 20},
            {"mac", "02:00:00:00:00:09"},
            {"app_type", app_type},
            {"value", value},
            {"op", operation},
            {"flags", 0},
            {"ip", "0.0.0.0"},
            {"ip6", "::"},
            {"mask", "0.0.0.0"}};
}

struct kept_case {
    std::uint16_t type;
    const char* name;
    wire_value value;
    json fields;
};

std::vector<kept_case> kept_cases() {
    std::vector<kept_case> cases;
    const std::pair<std::uint16_t, const char*> plain[] = {
        {101, "d1x-authen-method"},      {102, "d1x-author-mode-set"},
        {103, "d1x-port-addr-num"},      {104, "d1x-port-open"},
        {105, "d1x-set-pt-ctrl"},        {106, "d1x-set-cos"},
        {107, "d1x-set-dscp"},           {111, "webauth-set"},
        {116, "sp-port-security"},       {118, "global-ip-mac"},
        {119, "ip-source-guard-status"}, {120, "bind-except-port"},
        {121, "dhcp-trust-port"},        {122, "arpcheck"},
        {125, "nac-esc-eport-set"},      {126, "nac-app-set"},
        {162, "nd-snooping-set"},        {164, "arpcheck-trust"},
        {169, "sp-port-violate"}};
    for (const auto& [type, name] : plain) {
        cases.push_back({type, name, config_request(1, 7, 1), config_fields(7, 1)});
    }
    cases.push_back({160, "dhcp-snooping-set", config_request(1, 7, 0, 9), config_fields(7, 0, 9)});
    cases.push_back({161, "dhcp-snooping-set-second", config_request(1, 7, 0, 10), config_fields(7, 0, 10)});
    cases.push_back({108, "dot1x-redirect-enable", wire_value(8).u32(4, 1), {{"value", 1}}});
    cases.push_back({109, "d1x-mac-move", wire_value(8).u32(4, 1), {{"value", 1}}});
    cases.push_back(
        {112, "http-dport-set", wire_value(12).u16(4, 8080).u32(8, 1), {{"port", 8080}, {"add", 1}}});
    cases.push_back(
        {113,
         "dirchn-host-set",
         wire_value(24).raw(4, {10, 0, 0, 9}).raw(8, {255, 0, 0, 0}).u32(12, 1).u32(16, 4).u32(20, 1),
         {{"ip", "10.0.0.9"}, {"mask", "255.0.0.0"}, {"arp", 1}, {"ifx", 4}, {"add", 1}}});
    cases.push_back({114,
                     "dirchn-server-set",
                     wire_value(12).raw(4, {10, 0, 0, 9}).u32(8, 1),
                     {{"ip", "10.0.0.9"}, {"add", 1}}});
    for (const std::uint16_t type : {std::uint16_t{115}, std::uint16_t{159}}) {
        cases.push_back({type,
                         type == 115 ? "dirchn-site-set" : "dirchn-arp-set",
                         wire_value(20).raw(4, {10, 0, 0, 9}).raw(8, {255, 0, 0, 0}).u32(12, 1).u32(16, 1),
                         {{"ip", "10.0.0.9"}, {"mask", "255.0.0.0"}, {"arp", 1}, {"add", 1}}});
    }
    cases.push_back({123, "addr-learning", wire_value(12).u32(4, 4).u32(8, 1), {{"ifx", 4}, {"enable", 1}}});
    cases.push_back({124,
                     "nac-esc-set",
                     wire_value(28).u32(4, 6).key(8, 3, 5).u32(24, 1),
                     {{"value", 6}, {"key", "0/3/5/1"}, {"enable", 1}}});
    cases.push_back({128,
                     "ndsnp-default-bind-set",
                     wire_value(16).u32(4, 4).u32(8, 20).u32(12, 1),
                     {{"ifx", 4}, {"vid", 20}, {"enable", 1}}});
    cases.push_back({130,
                     "nac-nbr-set",
                     wire_value(928).u32(8, 4).u32(12, 20).raw(16, mac).u32(920, 1),
                     {{"ifx", 4}, {"vid", 20}, {"mac", "02:00:00:00:00:09"}, {"add", 1}}});
    cases.push_back(
        {142, "acl-global-eport-set", wire_value(16).u32(4, 4).u32(8, 1), {{"ifx", 4}, {"value", 1}}});
    cases.push_back({143, "svi-router-acl-set", wire_value(8).u32(4, 1), {{"value", 1}}});
    cases.push_back(
        {157, "efacl-ctrl", wire_value(10).u32(4, 2).u8(8, 0xab), {{"length", 2}, {"data", "ab00"}}});
    cases.push_back({163, "cpp-set", wire_value(12).u32(4, 1), {{"enable", 1}, {"type", 0}}});
    cases.push_back({166,
                     "offline-detect-cfg",
                     wire_value(16).u32(4, 1).u32(8, 30).u32(12, 40),
                     {{"open", 1}, {"interval", 30}, {"threshold", 40}}});
    cases.push_back({167,
                     "direct-vlan-set",
                     wire_value(520).u32(4, 1).u8(8, 2).u8(519, 0x80),
                     {{"value", 1}, {"vlans", {1, 4095}}}});
    return cases;
}

json settings_of(const std::string& name) {
    return control({{"do", "settings"}, {"name", name}})["settings"][name];
}

TEST(SccdSettings, EveryRequestIsKeptAndReadBackByTheNamesOfItsFields) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    std::uint32_t call = 100;

    for (kept_case& each : kept_cases()) {
        EXPECT_EQ(client.result_of(each.type, each.value.u32(0, ++call)), 0u) << each.name;
        EXPECT_EQ(settings_of(each.name), json::array({each.fields})) << each.name;
    }
    EXPECT_EQ(control({{"do", "settings"}})["settings"].size(), kept_cases().size());
}

TEST(SccdSettings, OneWayRequestsAndTheMirrorsPortAreKept) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    client.sync.send(220, wire_value(4).u32(0, 1));
    client.sync.send(205, wire_value(4).u32(0, 7));
    EXPECT_EQ(client.query(316, config_request(1, 0, 1)).u32(0), 0u);

    EXPECT_EQ(settings_of("warterline-notify"), json::array({{{"start", 1}}}));
    EXPECT_EQ(settings_of("test-cmd-set"), json::array({{{"command", 7}}}));
    EXPECT_EQ(settings_of("nac-span-dport-set"), json::array({config_fields(0, 1)}));
}

TEST(SccdSettings, BytesWithoutAFieldAreShownWithTheWholeRecord) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(108, wire_value(8).u32(0, 1).u32(4, 1)), 0u);
    EXPECT_EQ(client.result_of(104, config_request(2, 0, 1).u8(743, 0xee)), 0u);

    EXPECT_FALSE(settings_of("dot1x-redirect-enable")[0].contains("bytes"));
    const std::string bytes = settings_of("d1x-port-open")[0]["bytes"];
    EXPECT_EQ(bytes.size(), 2u * 744);
    EXPECT_TRUE(bytes.starts_with("0000000000000000040000001400000002000000000900"));
    EXPECT_TRUE(bytes.ends_with("00ee"));
}

TEST(SccdSettings, ASecondRequestReplacesTheRecordOfItsInterface) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.result_of(104, config_request(1, 5, 1)), 0u);
    EXPECT_EQ(client.result_of(104, config_request(2, 6, 1)), 0u);
    EXPECT_EQ(client.result_of(104, config_request(3, 7, 1).u32(8, 300)), 0u);

    EXPECT_EQ(settings_of("d1x-port-open")[0]["value"], 6);
    EXPECT_EQ(settings_of("d1x-port-open")[1]["ifx"], 300);
    EXPECT_EQ(client.result_of(104, config_request(4, 0, 3)), 0u);
    EXPECT_EQ(settings_of("d1x-port-open").size(), 1u);
}

TEST(SccdSettings, ARecordThatMakesNoSenseIsRefusedAndChangesNothing) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    const std::pair<std::uint16_t, wire_value> senseless[] = {
        {104, config_request(1, 0, 2)},  // an operation that is none
        {104, config_request(1, 0, 4)},
        {111, config_request(1, 0, 1).u32(12, 4095)},  // a VLAN that is none
        {106, config_request(1, 8, 1)},                // a class of service above 7
        {107, config_request(1, 64, 1)},               // a DSCP above 63
        {160, config_request(1, 0, 1, 10)},            // the form of the other request
        {161, config_request(1, 0, 1, 9)},
        {126, config_request(1, 0, 1, 39)},
        {113, wire_value(24).u32(0, 1).u32(20, 1)},  // a host without an address
        {115, wire_value(20).u32(0, 1).u32(16, 1)},
        {123, wire_value(12).u32(0, 1).u32(8, 1)},  // learning on no interface
        {142, wire_value(16).u32(0, 1).u32(4, 65536).u32(8, 1)},
        {163, wire_value(12).u32(0, 1).u32(8, 1)},
    };

    for (const auto& [type, value] : senseless) {
        EXPECT_EQ(client.result_of(type, value), 22u) << type;
    }
    EXPECT_EQ(control({{"do", "settings"}})["settings"], json::object());
}

TEST(SccdSettings, RemovingWhatIsNotThereHasACodeOfItsOwn) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    const wire_value host = wire_value(24).raw(4, {10, 0, 0, 9});
    const wire_value site = wire_value(20).raw(4, {10, 0, 0, 9}).u32(12, 1);

    EXPECT_EQ(client.result_of(113, wire_value(host).u32(0, 1)), 2015u);
    EXPECT_EQ(client.result_of(115, wire_value(site).u32(0, 2)), 2016u);
    EXPECT_EQ(client.result_of(159, wire_value(site).u32(0, 3)), 2016u);
    EXPECT_EQ(client.result_of(118, config_request(4, 0, 3)), 2u);
    EXPECT_EQ(client.result_of(130, wire_value(928).u32(0, 5)), 2u);
    EXPECT_EQ(client.result_of(124, wire_value(28).u32(0, 6).key(8, 3, 5).u32(24, 1)), 2005u);

    EXPECT_EQ(client.result_of(113, wire_value(host).u32(0, 7).u32(20, 1)), 0u);
    EXPECT_EQ(client.result_of(113, wire_value(host).u32(0, 8)), 0u);
    EXPECT_EQ(client.result_of(113, wire_value(host).u32(0, 9)), 2015u);
}

TEST(SccdSettings, OtherApplicationsLearnOfDirectChannels) {
    daemon_process daemon;
    test_client sender(daemon, 3, 77);
    test_client other(daemon, 4, 78);

    EXPECT_EQ(sender.result_of(113, wire_value(24).u32(0, 1).raw(4, {10, 0, 0, 9}).u32(20, 1)), 0u);
    EXPECT_EQ(sender.result_of(113, wire_value(24).u32(0, 2).raw(4, {10, 0, 0, 9})), 0u);

    const test_item added = other.async.receive();
    EXPECT_EQ(added.type, 216);
    EXPECT_EQ(added.value, wire_value(12).raw(4, {10, 0, 0, 9}).u32(8, 1).bytes());
    EXPECT_EQ(other.async.receive().value, wire_value(12).raw(4, {10, 0, 0, 9}).bytes());
}

TEST(SccdSettings, AVlanChangeMovesTheBindingAndNamesItsAcl) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    wire_value user(232);
    user.u32(8, 4).raw(32, mac).u16(38, 20).key(40, 3, 5);
    ASSERT_EQ(client.result_of(134, wire_value(user).u32(0, 2).u32(216, 1)), 0u);

    const test_item moved = client.query(314, wire_value(user).u16(38, 21));
    const test_item stranger = client.query(314, wire_value(user).u32(8, 5));

    EXPECT_EQ(moved.type, 136);
    EXPECT_EQ(moved.value, (byte_string{0, 0, 0, 0, 3, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(stranger.value, byte_string(16, 0));
    EXPECT_EQ(control({{"do", "state"}})["state"]["user_acls"][0]["vid"], 21);
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 3)), 2008u);
    EXPECT_EQ(client.result_of(134, wire_value(user).u32(0, 4).u16(38, 21)), 0u);
}

TEST(SccdSettings, APortTakesNoMoreUsersThanItsLimit) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(103, config_request(1, 1, 1)), 0u);

    EXPECT_EQ(client.result_of(127, user_request(2, 8, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(3, 9, 4, 1)), 28u);
    EXPECT_EQ(client.result_of(127, user_request(4, 8, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(5, 9, 5, 1)), 0u);
    EXPECT_EQ(client.query(317, wire_value(744).u32(8, 4)).u32(4), 1u);
}

TEST(SccdSettings, AUserBeyondPortSecurityIsAViolationIfThatIsSet) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(116, config_request(1, 1, 1)), 0u);
    ASSERT_EQ(client.result_of(127, user_request(2, 8, 4, 1)), 0u);
    EXPECT_EQ(client.result_of(127, user_request(3, 9, 4, 1)), 28u);
    ASSERT_EQ(client.result_of(169, config_request(4, 1, 1)), 0u);

    client.async.send(127, user_request(5, 9, 4, 1));

    test_item violation = client.async.receive();
    test_item answer = client.async.receive();
    EXPECT_EQ(violation.type, 217);
    EXPECT_EQ(violation.value, wire_value(64).u32(4, 4).raw(10, mac).u8(60, 1).bytes());
    EXPECT_EQ(answer.u32(4), 28u);
}

// Sends, as the service, that station 2:0:0:0:0:`mac` has come to the interface.
void move_to(test_client& service, std::uint32_t ifx, std::uint16_t vid, std::uint8_t last_of_mac) {
    service.sync.send(202, wire_value(24).u32(4, 1).u32(8, ifx).u16(12, vid).u16(16, vid).raw(
                               18, {2, 0, 0, 0, 0, last_of_mac}));
}

TEST(SccdSettings, AStrangerOnASecuredInterfaceIsAViolation) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    const auto close = [&](std::uint32_t ifx, std::uint32_t vid, std::uint32_t type,
                           std::uint32_t operation) {
        client.async.send(
            126, wire_value(744).u32(0, 1).u32(8, ifx).u32(12, vid).u32(24, type).u32(32, operation));
        answer_operation(service, service.async.receive(), 0);
        EXPECT_EQ(client.async.receive().u32(4), 0u);
    };
    close(4, 0, 6, 1);
    close(5, 20, 6, 1);
    close(6, 0, 1, 1);
    close(7, 0, 6, 1);
    close(7, 0, 6, 3);
    client.async.send(127, user_request(2, 9, 4, 1));
    answer_operation(service, service.async.receive(), 0);
    EXPECT_EQ(client.async.receive().u32(4), 0u);

    move_to(service, 4, 0, 9);   // a user
    move_to(service, 5, 0, 8);   // another VLAN
    move_to(service, 6, 0, 8);   // not by port security
    move_to(service, 7, 0, 8);   // open again
    move_to(service, 4, 10, 8);  // a stranger
    move_to(service, 5, 20, 9);  // a user of another interface

    for (int move = 0; move < 5; ++move) {
        EXPECT_EQ(client.async.receive().type, 110);
    }
    const test_item stranger = client.async.receive();
    EXPECT_EQ(stranger.type, 217);
    EXPECT_EQ(stranger.value,
              wire_value(64).u32(4, 4).u16(8, 10).raw(10, {2, 0, 0, 0, 0, 8}).u8(60, 1).bytes());
    EXPECT_EQ(client.async.receive().type, 110);
    const test_item of_another = client.async.receive();
    EXPECT_EQ(of_another.type, 217);
    EXPECT_EQ(of_another.value,
              wire_value(64).u32(4, 5).u16(8, 20).raw(10, {2, 0, 0, 0, 0, 9}).u8(60, 1).bytes());
}

TEST(SccdSettings, UsersOfTrustedPortsAreNotChecked) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(127, user_request(1, 8, 4, 1)), 0u);
    ASSERT_EQ(client.result_of(127, user_request(2, 9, 5, 1)), 0u);

    EXPECT_EQ(client.query(304, wire_value(12)).u32(8), 2u);
    EXPECT_EQ(client.result_of(164, config_request(3, 0, 1)), 0u);
    EXPECT_EQ(client.query(304, wire_value(12)).u32(8), 1u);
    EXPECT_EQ(client.query(304, wire_value(12).u32(4, 4)).u32(8), 0u);
    EXPECT_EQ(client.result_of(164, config_request(4, 0, 3)), 0u);
    EXPECT_EQ(client.query(304, wire_value(12)).u32(8), 2u);
}

TEST(SccdSettings, AMacQueryFindsABinding) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(118, config_request(1, 0, 1).raw(44, {10, 0, 0, 7})), 0u);

    const test_item found = client.query(315, wire_value(152).raw(4, mac));

    EXPECT_EQ(found.u32(12), 0u);
    EXPECT_EQ(found.part(32, 4), (byte_string{10, 0, 0, 7}));
}

TEST(SccdSettings, MovesOnAnInterfaceThatDoesNotLearnAreNotPassedOn) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    test_client service(daemon, service_app, 78);
    ASSERT_EQ(client.result_of(123, wire_value(12).u32(0, 1).u32(4, 4)), 0u);

    service.sync.send(202, wire_value(40).u32(4, 2).u32(8, 4).u32(24, 5));

    EXPECT_EQ(client.async.receive().value, wire_value(24).u32(4, 1).u32(8, 5).bytes());
}

TEST(SccdSettings, AnUnknownSettingIsNamedTogetherWithTheKnown) {
    daemon_process daemon;

    const json reply = control({{"do", "settings"}, {"name", "d1x-port"}});

    EXPECT_EQ(reply["ok"], false);
    EXPECT_TRUE(reply["error"].get<std::string>().starts_with(
        "no setting 'd1x-port'; there are d1x-authen-method, "));
}

TEST(SccdSettings, RulesAreShownAsText) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);
    ASSERT_EQ(client.result_of(131, acl_request(1, 5, 1)), 0u);
    // permit tcp 10.0.0.0/8 any port 443
    wire_value ace = ace_request(2, 5, 10, 10, 1);
    ace.raw(24 + 16, {'A', 'C', 'E', '1', 1, 4, 1, 6}).raw(24 + 32, {10}).u8(24 + 64, 8);
    ace.u16(24 + 70, 0xffff).u16(24 + 72, 443).u16(24 + 74, 443);
    ASSERT_EQ(client.result_of(132, ace), 0u);
    ASSERT_EQ(client.result_of(132, ace_request(3, 5, 20, 20, 1).u8(24 + 300, 1)), 0u);

    const json aces = control({{"do", "acls"}})["acls"][0]["aces"];

    EXPECT_EQ(aces[0]["sn"], 10);
    EXPECT_TRUE(aces[0]["rule"].get<std::string>().starts_with("10 permit tcp 10.0.0.0/8 any ")) << aces[0];
    EXPECT_FALSE(aces[0].contains("bytes")) << aces[0];
    EXPECT_FALSE(aces[1].contains("rule"));
    EXPECT_EQ(aces[1]["bytes"].get<std::string>().size(), 2u * 912);
}

}  // namespace
}  // namespace sccd_test
