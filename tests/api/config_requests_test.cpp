// The configuration requests: what each sends, saves and hands to its handler, and what it refuses.
#include <climits>

#include "api/request_rows.h"

using test::bytes;
using test::patterned;
using test::record_bytes;
using test::request_row;
using test::side;
using test::texts;
using test::texts_of;
using test::wire;

namespace {

constexpr std::uint32_t high = 0xFEDCBA98;
constexpr scc_acl_key esc_key{0xFFFFFFFF, 58, 32768, 0x80000001};
constexpr scc_acl_key lowest_key{0, 1, 1, 0};

// ---- records -------------------------------------------------------------------------------------

const scc_config_record& any_record() {
    static const auto record = patterned<scc_config_record>(3);
    return record;
}

using record_function = std::uint32_t (*)(const scc_config_record*, std::uint32_t*);

struct record_member {
    const char* name;
    record_function function;
    std::uint16_t type;
    std::uint32_t kind;
    std::size_t position;
};

constexpr record_member record_members[] = {
    {"d1x_authen_method", scc_d1x_authen_method, 101, 1, 1},
    {"d1x_author_mode_set", scc_d1x_author_mode_set, 102, 2, 2},
    {"d1x_port_addr_num", scc_d1x_port_addr_num, 103, 3, 3},
    {"d1x_port_open", scc_d1x_port_open, 104, 4, 4},
    {"d1x_set_pt_ctrl", scc_d1x_set_pt_ctrl, 105, 5, 5},
    {"d1x_set_cos", scc_d1x_set_cos, 106, 6, 6},
    {"d1x_set_dscp", scc_d1x_set_dscp, 107, 7, 7},
    {"webauth_set", scc_webauth_set, 111, 10, 11},
    {"sp_port_secuity", scc_sp_port_secuity, 116, 16, 17},
    {"sp_port_violate", scc_sp_port_violate, 169, 60, 69},
    {"global_ip_mac", scc_global_ip_mac, 118, 18, 19},
    {"ip_source_guard_status", scc_ip_source_guard_status, 119, 19, 20},
    {"bind_except_port", scc_bind_except_port, 120, 20, 21},
    {"dhcp_trust_port", scc_dhcp_trust_port, 121, 21, 22},
    {"nd_snooping_set", scc_nd_snooping_set, 162, 53, 53},
    {"arpcheck", scc_arpcheck, 122, 22, 23},
    {"arpcheck_trust", scc_arpcheck_trust, 164, 55, 58},
    {"nac_esc_eport_set", scc_nac_esc_eport_set, 125, 25, 26},
    {"nac_app_set", scc_nac_app_set, 126, 26, 27},
};

scc_config_record snooping_record(std::uint32_t form) {
    scc_config_record record = any_record();
    record.form = form;
    return record;
}

std::vector<request_row> record_rows() {
    std::vector<request_row> rows;
    const bytes record = record_bytes(any_record());
    for (const record_member& member : record_members) {
        const record_function function = member.function;
        rows.push_back({member.name, [function](std::uint32_t* id) { return function(&any_record(), id); },
                        member.type, member.kind, member.position, wire().zeros(4).add(record), record,
                        record});
    }
    const bytes ninth = record_bytes(snooping_record(9));
    const bytes tenth = record_bytes(snooping_record(10));
    rows.push_back({"dhcp_snooping_set_form_9",
                    [](std::uint32_t* id) {
                        const scc_config_record sent = snooping_record(9);
                        return scc_dhcp_snooping_set(&sent, id);
                    },
                    160, 51, 51, wire().zeros(4).add(ninth), ninth, ninth});
    rows.push_back({"dhcp_snooping_set_form_10",
                    [](std::uint32_t* id) {
                        const scc_config_record sent = snooping_record(10);
                        return scc_dhcp_snooping_set(&sent, id);
                    },
                    161, 52, 52, wire().zeros(4).add(tenth), tenth, tenth});
    return rows;
}

EVERY_REQUEST_OF(RecordRequest, record_rows());

// ---- scalars -------------------------------------------------------------------------------------

// A row whose handler gets exactly the saved bytes.
request_row scalar(const std::string& name, std::function<std::uint32_t(std::uint32_t*)> call,
                   std::uint16_t type, std::uint32_t kind, std::size_t position, const bytes& payload,
                   const bytes& saved) {
    return {name, std::move(call), type, kind, position, payload, saved, saved};
}

#define CALL(expression) [](std::uint32_t* id) { return expression; }

std::vector<request_row> switch_rows() {
    return {
        scalar("dot1x_redirect_enable", CALL(scc_dot1x_redirect_enable(1, id)), 108, 8, 8, wire().u32(1),
               wire().u8(1)),
        scalar("dot1x_redirect_enable_all_ones", CALL(scc_dot1x_redirect_enable(-1, id)), 108, 8, 8,
               wire().u32(0xFFFFFFFF), wire().u8(0xFF)),
        scalar("dot1x_redirect_enable_above_a_byte", CALL(scc_dot1x_redirect_enable(0x12345678, id)), 108, 8,
               8, wire().u32(0x12345678), wire().u8(0x78)),
        scalar("d1x_mac_move", CALL(scc_d1x_mac_move(0, id)), 109, 9, 9, wire().u32(0), wire().u8(0)),
        scalar("d1x_mac_move_lowest", CALL(scc_d1x_mac_move(INT_MIN, id)), 109, 9, 9, wire().u32(0x80000000),
               wire().u8(0)),
        scalar("d1x_mac_move_highest", CALL(scc_d1x_mac_move(INT_MAX, id)), 109, 9, 9, wire().u32(0x7FFFFFFF),
               wire().u8(0xFF)),
        scalar("http_dport_set", CALL(scc_http_dport_set(8080, 1, id)), 112, 11, 12, wire().u32(8080).u32(1),
               wire().u16(8080).u8(1)),
        scalar("http_dport_set_highest", CALL(scc_http_dport_set(65535, 255, id)), 112, 11, 12,
               wire().u32(65535).u32(255), wire().u16(65535).u8(255)),
        scalar("http_dport_set_lowest", CALL(scc_http_dport_set(0, 0, id)), 112, 11, 12, wire().u32(0).u32(0),
               wire().zeros(3)),
        scalar("svi_router_acl_set", CALL(scc_svi_router_acl_set(1, id)), 143, 45, 46, wire().u32(1),
               wire().u8(1)),
        scalar("svi_router_acl_set_highest", CALL(scc_svi_router_acl_set(255, id)), 143, 45, 46,
               wire().u32(255), wire().u8(255)),
        scalar("acl_global_eport_set_lowest", CALL(scc_acl_global_eport_set(1, 0, id)), 142, 44, 45,
               wire().u32(1).u32(0).zeros(4), wire().u32(1).u8(0)),
        scalar("acl_global_eport_set_highest", CALL(scc_acl_global_eport_set(65535, 255, id)), 142, 44, 45,
               wire().u32(65535).u32(255).zeros(4), wire().u32(65535).u8(255)),
        scalar("cpp_set", CALL(scc_cpp_set(0, 1, id)), 163, 54, 54, wire().u32(1).u32(0),
               wire().u32(0).u8(1)),
        scalar("cpp_set_highest", CALL(scc_cpp_set(0, 255, id)), 163, 54, 54, wire().u32(255).u32(0),
               wire().u32(0).u8(255)),
    };
}

std::vector<request_row> channel_rows() {
    return {
        scalar("dirchn_host_set", CALL(scc_dirchn_host_set(0x0A000001, 0x00FFFFFF, 2, 0x11223344, 5, id)),
               113, 12, 13, wire().u32(0x0A000001).u32(0x00FFFFFF).u32(2).u32(0x11223344).u32(5),
               wire().u32(0x0A000001).u32(0x00FFFFFF).u8(2).u32(0x11223344).u8(5)),
        scalar("dirchn_host_set_highest",
               CALL(scc_dirchn_host_set(0xFFFFFFFF, 0xFFFFFFFF, 255, 0xFFFFFFFF, 255, id)), 113, 12, 13,
               wire().fill(8, 0xFF).u32(255).fill(4, 0xFF).u32(255), wire().fill(14, 0xFF)),
        scalar("dirchn_server_set", CALL(scc_dirchn_server_set(high, 255, id)), 114, 13, 14,
               wire().u32(high).u32(255), wire().u32(high).u8(255)),
        scalar("dirchn_server_set_zero", CALL(scc_dirchn_server_set(0, 0, id)), 114, 13, 14, wire().zeros(8),
               wire().zeros(5)),
        scalar("dirchn_site_set", CALL(scc_dirchn_site_set(high, 7, 254, 3, id)), 115, 14, 15,
               wire().u32(high).u32(7).u32(254).u32(3), wire().u32(high).u32(7).u8(254).u8(3)),
        {"dirchn_arp_set", CALL(scc_dirchn_arp_set(high, 9, 0, id)), 159, 15, 16,
         wire().u32(high).u32(9).u32(1).u32(0), wire().u32(high).u32(9).u8(1).u8(0),
         wire().u32(high).u32(9).u8(0)},
        {"dirchn_arp_set_highest", CALL(scc_dirchn_arp_set(0xFFFFFFFF, 0xFFFFFFFF, 255, id)), 159, 15, 16,
         wire().fill(8, 0xFF).u32(1).u32(255), wire().fill(8, 0xFF).u8(1).u8(255), wire().fill(9, 0xFF)},
        scalar("addr_learning", CALL(scc_addr_learning(high, 1, id)), 123, 23, 24, wire().u32(high).u32(1),
               wire().u32(high).u8(1)),
        scalar("addr_learning_highest", CALL(scc_addr_learning(0xFFFFFFFF, 255, id)), 123, 23, 24,
               wire().u32(0xFFFFFFFF).u32(255), wire().fill(5, 0xFF)),
        scalar("ndsnp_default_bind_set", CALL(scc_ndsnp_default_bind_set(high, 1, 255, id)), 128, 28, 29,
               wire().u32(high).u32(1).u32(255), wire().u32(high).u32(1).u8(255)),
        scalar("nac_esc_set", CALL(scc_nac_esc_set(high, &esc_key, 255, id)), 124, 24, 25,
               wire().u32(high).u32(0xFFFFFFFF).u32(58).u32(32768).u32(0x80000001).u32(255),
               wire().u32(high).u32(0xFFFFFFFF).u32(58).u32(32768).u32(0x80000001).u8(255)),
        scalar("nac_esc_set_lowest", CALL(scc_nac_esc_set(0, &lowest_key, 0, id)), 124, 24, 25,
               wire().u32(0).u32(0).u32(1).u32(1).u32(0).u32(0),
               wire().u32(0).u32(0).u32(1).u32(1).u32(0).u8(0)),
    };
}

EVERY_REQUEST_OF(SwitchRequest, switch_rows());
EVERY_REQUEST_OF(ChannelRequest, channel_rows());

// ---- requests with a layout of their own ---------------------------------------------------------

const scc_neighbour_record& neighbour() {
    static const auto record = patterned<scc_neighbour_record>(11);
    return record;
}

const scc_vlan_record& vlans() {
    static const auto record = patterned<scc_vlan_record>(77);
    return record;
}

std::vector<request_row> own_layout_rows() {
    const bytes neighbours = record_bytes(neighbour());
    const bytes vlan_bytes = record_bytes(vlans());
    return {
        {"nac_nbr_set", CALL(scc_nac_nbr_set(&neighbour(), 1, id)), 130, 30, 31,
         wire().zeros(4).add(neighbours).u32(1).zeros(4), wire().add(neighbours).u8(1),
         wire().add(neighbours).u8(1)},
        {"nac_nbr_set_highest", CALL(scc_nac_nbr_set(&neighbour(), 255, id)), 130, 30, 31,
         wire().zeros(4).add(neighbours).u32(255).zeros(4), wire().add(neighbours).u8(255),
         wire().add(neighbours).u8(255)},
        {"offline_detect_cfg", CALL(scc_offline_detect_cfg(1, 600, high, id)), 166, 57, 60,
         wire().u32(1).u32(600).u32(high), wire().u32(1).u32(1).u32(600).u32(high),
         wire().u8(1).u32(600).u32(high)},
        {"offline_detect_cfg_negative", CALL(scc_offline_detect_cfg(-2, 0, 0xFFFFFFFF, id)), 166, 57, 60,
         wire().u32(0xFFFFFFFE).u32(0).u32(0xFFFFFFFF), wire().u32(1).u32(0xFFFFFFFE).u32(0).u32(0xFFFFFFFF),
         wire().u8(0xFE).u32(0).u32(0xFFFFFFFF)},
        {"offline_detect_cfg_above_a_byte", CALL(scc_offline_detect_cfg(0x100, 1, 2, id)), 166, 57, 60,
         wire().u32(0x100).u32(1).u32(2), wire().u32(1).u32(0x100).u32(1).u32(2), wire().u8(0).u32(1).u32(2)},
        {"direct_vlan_set", CALL(scc_direct_vlan_set(1, &vlans(), id)), 167, 58, 62,
         wire().u32(1).add(vlan_bytes), wire().u32(1).u32(1).add(vlan_bytes), wire().u8(1).add(vlan_bytes)},
        {"direct_vlan_set_lowest", CALL(scc_direct_vlan_set(INT_MIN + 0x7F, &vlans(), id)), 167, 58, 62,
         wire().u32(0x8000007F).add(vlan_bytes), wire().u32(1).u32(0x8000007F).add(vlan_bytes),
         wire().u8(0x7F).add(vlan_bytes)},
        {"efacl_ctrl", CALL(scc_efacl_ctrl("rule", 5, id)), 157, 50, 50, wire().u32(5).text("rule").u8(0),
         wire().text("rule").u8(0), wire().text("rule").u8(0).u32(5)},
        {"efacl_ctrl_one_byte", CALL(scc_efacl_ctrl("x", 1, id)), 157, 50, 50, wire().u32(1).text("x"),
         wire().text("x"), wire().text("x").u32(1)},
    };
}

EVERY_REQUEST_OF(OwnLayoutRequest, own_layout_rows());

// ---- refusals ------------------------------------------------------------------------------------

using ConfigRequest = test::recording_client;

// Calls with arguments out of range, none of which may take a call id.
void expect_every_refusal() {
    std::uint32_t id = 0xAAAAAAAA;
    for (const record_member& member : record_members) {
        EXPECT_EQ(member.function(nullptr, &id), 22U) << member.name;
    }
    EXPECT_EQ(scc_dhcp_snooping_set(nullptr, &id), 22U);
    EXPECT_EQ(scc_nac_nbr_set(nullptr, 1, &id), 22U);
    EXPECT_EQ(scc_direct_vlan_set(1, nullptr, &id), 22U);
    EXPECT_EQ(scc_efacl_ctrl(nullptr, 4, &id), 22U);
    for (const std::uint32_t length : {0U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(scc_efacl_ctrl("data", length, &id), 22U) << length;
    }
    for (const int type : {1, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(scc_cpp_set(type, 1, &id), 22U) << type;
    }
    for (const std::uint32_t ifx : {0U, 65536U, 0xFFFFFFFFU}) {
        EXPECT_EQ(scc_acl_global_eport_set(ifx, 1, &id), 22U) << ifx;
    }
    EXPECT_EQ(scc_nac_esc_set(1, nullptr, 1, &id), 22U);
    for (const scc_acl_key key :
         {scc_acl_key{0, 1, 0, 0}, scc_acl_key{0, 1, 32769, 0}, scc_acl_key{0, 1, 0xFFFFFFFF, 0},
          scc_acl_key{0, 0, 1, 0}, scc_acl_key{0, 59, 1, 0}, scc_acl_key{0, 0xFFFFFFFF, 1, 0}}) {
        EXPECT_EQ(scc_nac_esc_set(1, &key, 1, &id), 22U) << key.acl_id << " " << key.app_type;
    }
    EXPECT_EQ(id, 0xAAAAAAAAU);
    EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
}

TEST_F(ConfigRequest, RefusesWrongArgumentsAlsoWhenNotRegistered) {
    expect_every_refusal();
}

TEST_F(ConfigRequest, SendsNothingForWrongArguments) {
    start();
    expect_every_refusal();
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_nothing_was_sent();
}

TEST_F(ConfigRequest, LogsWhatIsWrongWithItsArguments) {
    for (const record_member& member : record_members) {
        EXPECT_EQ(texts_of([&] { member.function(nullptr, nullptr); }), texts{"scclib param invalid."})
            << member.name;
    }
    EXPECT_EQ(texts_of([] { scc_dhcp_snooping_set(nullptr, nullptr); }), texts{"scclib param invalid."});
    EXPECT_EQ(texts_of([] { scc_nac_nbr_set(nullptr, 0, nullptr); }), texts{"scclib param invalid."});
    EXPECT_EQ(texts_of([] { scc_nac_esc_set(0, nullptr, 0, nullptr); }), texts{"scclib param invalid."});
    EXPECT_EQ(texts_of([] { scc_acl_global_eport_set(0, 0, nullptr); }),
              texts{"scclib param invalid. ifx invalid"});
    EXPECT_EQ(texts_of([] { scc_efacl_ctrl(nullptr, 12, nullptr); }),
              texts{"scclib param invalid. data:(nil), len:12"});
    char data = 0;
    char expected[80];
    std::snprintf(expected, sizeof expected, "scclib param invalid. data:%p, len:-1",
                  static_cast<void*>(&data));
    EXPECT_EQ(texts_of([&] { scc_efacl_ctrl(&data, 0xFFFFFFFF, nullptr); }), texts{expected});
}

TEST_F(ConfigRequest, RefusesCpuProtectionTypesAndMissingVlansWithoutALog) {
    EXPECT_EQ(texts_of([] { scc_cpp_set(1, 1, nullptr); }), texts{});
    EXPECT_EQ(texts_of([] { scc_direct_vlan_set(1, nullptr, nullptr); }), texts{});
}

TEST_F(ConfigRequest, TestsTheStateBeforeTheFormOfDhcpSnooping) {
    for (const std::uint32_t form : {0U, 8U, 9U, 10U, 11U, 0xFFFFFFFFU}) {
        const scc_config_record record = snooping_record(form);
        EXPECT_EQ(scc_dhcp_snooping_set(&record, nullptr), 2004U) << form;
    }
}

TEST_F(ConfigRequest, UsesUpACallIdForAnUnknownFormOfDhcpSnooping) {
    start();
    std::uint32_t id = 0xAAAAAAAA;
    for (const std::uint32_t form : {0U, 8U, 11U, 0xFFFFFFFFU}) {
        const scc_config_record record = snooping_record(form);
        EXPECT_EQ(scc_dhcp_snooping_set(&record, &id), 22U) << form;
    }
    EXPECT_EQ(id, 0xAAAAAAAAU);
    EXPECT_EQ(scc::pending_calls(), 0U);
    expect_nothing_was_sent();
    EXPECT_EQ(scc_addr_learning(1, 1, &id), 0U);
    EXPECT_EQ(id, 5U);
}

// ---- the control block's length ------------------------------------------------------------------

TEST_F(ConfigRequest, SendsTheLongestControlBlockThatFitsTheBatch) {
    start();
    const bytes data(8167, 0x5C);
    std::uint32_t id = 0;
    EXPECT_EQ(scc_efacl_ctrl(data.data(), 8167, &id), 0U);
    EXPECT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(1).u32(8167).add(data)));
    expect_saved(1, 50, data);
}

TEST_F(ConfigRequest, SendsALongerControlBlockAndYetReturns22AndForgetsIt) {
    start();
    const bytes data(8168, 0x5C);
    std::uint32_t id = 0;
    EXPECT_EQ(scc_efacl_ctrl(data.data(), 8168, &id), 22U);
    EXPECT_EQ(id, 1U);
    EXPECT_EQ(scc::pending_calls(), 0U);
    const test::received_item item = daemon.read_item(side::async);
    EXPECT_EQ(item.type, 157);
    EXPECT_EQ(item.value, bytes(wire().u32(1).u32(8168).add(data)));
}

TEST_F(ConfigRequest, KeepsTheCallersRecordsAsTheyAre) {
    start();
    scc_config_record record = snooping_record(9);
    const bytes before = record_bytes(record);
    for (const record_member& member : record_members) {
        EXPECT_EQ(member.function(&record, nullptr), 0U);
    }
    EXPECT_EQ(scc_dhcp_snooping_set(&record, nullptr), 0U);
    EXPECT_EQ(record_bytes(record), before);
    std::memset(&record, 0, sizeof record);
    for (const test::received_item& item : daemon.read_items(side::async, 20)) {
        EXPECT_EQ(test::slice(item.value, 8, 736), before) << item.type;
    }
}

}  // namespace
