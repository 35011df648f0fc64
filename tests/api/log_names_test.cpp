// Every line that a call logs about itself begins with the name of that call, so that the log shows which of
// the application's calls was refused.
#include "api/query_rows.h"
#include "api/request_rows.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr scc_acl_key key{1, 2, 3, 4};
constexpr std::uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
const scc_config_record config{};
const scc_neighbour_record neighbour{};
const scc_vlan_record vlans{};
const scc_ace_record ace{};
scc_list_head head{&head, &head};
std::uint8_t room[96];
std::uint32_t number = 0;
std::uint64_t counter = 0;

template <class Record>
Record* keyed() {
    static Record record{};
    record.key = key;
    return &record;
}

scc_user_record* user(std::uint32_t operation, std::uint32_t flags = 0, std::uint32_t entry_type = 0) {
    static scc_user_record record{};
    record.operation = operation;
    record.flags = flags;
    record.entry_type = entry_type;
    return &record;
}

scc_acl_key* own_key() {
    static scc_acl_key own = key;
    return &own;
}

int* room_for_two() {
    static int count = 2;
    return &count;
}

struct named_call {
    const char* name;
    std::uint32_t (*call)();
};

#define NAMED(function, ...)                                               \
    named_call {                                                           \
#function, []() -> std::uint32_t { return function(__VA_ARGS__); } \
    }

// Each with arguments that are in range.
const named_call good_calls[] = {
    NAMED(scc_d1x_authen_method, &config, nullptr),
    NAMED(scc_d1x_author_mode_set, &config, nullptr),
    NAMED(scc_d1x_port_addr_num, &config, nullptr),
    NAMED(scc_d1x_port_open, &config, nullptr),
    NAMED(scc_d1x_set_pt_ctrl, &config, nullptr),
    NAMED(scc_d1x_set_cos, &config, nullptr),
    NAMED(scc_d1x_set_dscp, &config, nullptr),
    NAMED(scc_dot1x_redirect_enable, 1, nullptr),
    NAMED(scc_d1x_mac_move, 1, nullptr),
    NAMED(scc_webauth_set, &config, nullptr),
    NAMED(scc_http_dport_set, 1, 1, nullptr),
    NAMED(scc_dirchn_host_set, 1, 1, 1, 1, 1, nullptr),
    NAMED(scc_dirchn_server_set, 1, 1, nullptr),
    NAMED(scc_dirchn_site_set, 1, 1, 1, 1, nullptr),
    NAMED(scc_dirchn_arp_set, 1, 1, 1, nullptr),
    NAMED(scc_sp_port_secuity, &config, nullptr),
    NAMED(scc_sp_port_violate, &config, nullptr),
    NAMED(scc_global_ip_mac, &config, nullptr),
    NAMED(scc_ip_source_guard_status, &config, nullptr),
    NAMED(scc_bind_except_port, &config, nullptr),
    NAMED(scc_dhcp_trust_port, &config, nullptr),
    NAMED(scc_dhcp_snooping_set, &config, nullptr),
    NAMED(scc_nd_snooping_set, &config, nullptr),
    NAMED(scc_arpcheck, &config, nullptr),
    NAMED(scc_arpcheck_trust, &config, nullptr),
    NAMED(scc_addr_learning, 1, 1, nullptr),
    NAMED(scc_nac_esc_set, 1, &key, 1, nullptr),
    NAMED(scc_nac_esc_eport_set, &config, nullptr),
    NAMED(scc_nac_app_set, &config, nullptr),
    NAMED(scc_nac_user_set, user(1), nullptr),
    NAMED(scc_arp_entry_set, user(1), nullptr),
    NAMED(scc_arp_dyn_entry_set, user(1), nullptr),
    NAMED(scc_ndsnp_default_bind_set, 1, 1, 1, nullptr),
    NAMED(scc_nac_nbr_set, &neighbour, 1, nullptr),
    NAMED(scc_cpp_set, 0, 1, nullptr),
    NAMED(scc_offline_detect_cfg, 1, 1, 1, nullptr),
    NAMED(scc_direct_vlan_set, 1, &vlans, nullptr),
    NAMED(scc_acl_global_eport_set, 1, 1, nullptr),
    NAMED(scc_svi_router_acl_set, 1, nullptr),
    NAMED(scc_efacl_ctrl, "x", 1, nullptr),
    NAMED(scc_warterline_notify, 1),
    NAMED(scc_test_cmd_set, 1),
    NAMED(scc_data_recover, 1),
    NAMED(scc_mac_query, mac, &number),
    NAMED(scc_sp_port_addr_num, &config, nullptr),
    NAMED(scc_nac_span_dport_set, &config, nullptr),
    NAMED(scc_nac_user_get, user(2)),
    NAMED(scc_is_arp_check_enabled, room),
    NAMED(scc_arp_check_user_count_get, 1, &number),
    NAMED(scc_arp_check_user_data_get, 1, room, room_for_two()),
    NAMED(scc_nac_user_counter_support, room),
    NAMED(scc_acl_create, &key, nullptr),
    NAMED(scc_acl_delete, &key, nullptr),
    NAMED(scc_acl_add_ace, &key, &ace, nullptr),
    NAMED(scc_acl_delete_ace, &key, &ace, nullptr),
    NAMED(scc_acl_apply, keyed<scc_acl_apply_record>(), nullptr),
    NAMED(scc_acl_unapply, keyed<scc_acl_apply_record>(), nullptr),
    NAMED(scc_acl_reseqence, &key, 1, 1, nullptr),
    NAMED(scc_acl_cls_get, own_key()),
    NAMED(scc_acl_get_ace, &key, &head),
    NAMED(scc_acl_get_ace_by_sn, &key, 1, reinterpret_cast<scc_ace_record*>(keyed<scc_acl_apply_record>())),
    NAMED(scc_user_acl_apply, keyed<scc_user_acl_record>(), nullptr),
    NAMED(scc_user_acl_unapply, keyed<scc_user_acl_record>(), nullptr),
    NAMED(scc_user_acl_delete_vmsup, &key, nullptr),
    NAMED(scc_user_acl_change_vmsup, keyed<scc_user_acl_record>(), room),
    NAMED(scc_acl_get_filter_counter, &key, &counter),
    NAMED(scc_acl_get_counter, &key, &counter),
    NAMED(scc_ace_get_counter, &key, 1, &counter),
    NAMED(scc_acl_reset_filter_counter, &key, nullptr),
    NAMED(scc_acl_reset_counter, &key, nullptr),
    NAMED(scc_ace_reset_counter, &key, 1, nullptr),
};

// Each with an argument whose refusal the call logs in its own words.
const named_call bad_calls[] = {
    NAMED(scc_d1x_authen_method, nullptr, nullptr),
    NAMED(scc_nac_app_set, nullptr, nullptr),
    NAMED(scc_dhcp_snooping_set, nullptr, nullptr),
    NAMED(scc_nac_user_set, nullptr, nullptr),
    NAMED(scc_arp_entry_set, user(2), nullptr),
    NAMED(scc_arp_dyn_entry_set, user(0), nullptr),
    NAMED(scc_nac_nbr_set, nullptr, 1, nullptr),
    NAMED(scc_acl_global_eport_set, 0, 1, nullptr),
    NAMED(scc_efacl_ctrl, nullptr, 1, nullptr),
    NAMED(scc_mac_query, nullptr, &number),
    NAMED(scc_sp_port_addr_num, nullptr, nullptr),
    NAMED(scc_nac_span_dport_set, nullptr, nullptr),
    NAMED(scc_nac_user_get, user(1)),
    NAMED(scc_is_arp_check_enabled, nullptr),
    NAMED(scc_arp_check_user_count_get, 1, nullptr),
    NAMED(scc_arp_check_user_data_get, 1, nullptr, room_for_two()),
    NAMED(scc_nac_user_counter_support, nullptr),
    NAMED(scc_acl_add_ace, &key, nullptr, nullptr),
    NAMED(scc_acl_delete_ace, &key, nullptr, nullptr),
    NAMED(scc_acl_apply, nullptr, nullptr),
    NAMED(scc_acl_unapply, nullptr, nullptr),
    NAMED(scc_acl_reseqence, &key, 0, 1, nullptr),
    NAMED(scc_acl_get_ace, &key, nullptr),
    NAMED(scc_acl_get_ace_by_sn, &key, 1, nullptr),
    NAMED(scc_user_acl_apply, nullptr, nullptr),
    NAMED(scc_user_acl_unapply, nullptr, nullptr),
    NAMED(scc_user_acl_delete_vmsup, nullptr, nullptr),
    NAMED(scc_user_acl_change_vmsup, nullptr, room),
    NAMED(scc_acl_get_filter_counter, &key, nullptr),
    NAMED(scc_acl_get_counter, &key, nullptr),
    NAMED(scc_ace_get_counter, &key, 1, nullptr),
};

std::string prefix_of(const std::string& name) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "<%-23s line:", name.c_str());
    return prefix;
}

// Whether every logged line begins with the name, and there is at least one.
void expect_every_line_named(const std::string& name) {
    const std::vector<test::log_line> lines = test::captured_log();
    EXPECT_FALSE(lines.empty()) << name;
    for (const test::log_line& line : lines) {
        EXPECT_EQ(line.whole.substr(0, prefix_of(name).size()), prefix_of(name)) << line.whole;
    }
}

using LogNames = test::recording_client;

TEST_F(LogNames, AreThoseOfTheCallsThatAreUnavailable) {
    for (const named_call& row : good_calls) {
        const test::debugging on;
        EXPECT_EQ(row.call(), 2004U) << row.name;
        expect_every_line_named(row.name);
    }
}

TEST_F(LogNames, AreThoseOfTheCallsThatRefuseTheirArguments) {
    for (const named_call& row : bad_calls) {
        const test::debugging on;
        EXPECT_EQ(row.call(), 22U) << row.name;
        expect_every_line_named(row.name);
    }
}

TEST_F(LogNames, AreNotWrittenWhileTheSwitchIsOff) {
    for (const named_call& row : good_calls) {
        EXPECT_EQ(row.call(), 2004U) << row.name;
    }
    for (const named_call& row : bad_calls) {
        EXPECT_EQ(row.call(), 22U) << row.name;
    }
    scc_acl_apply_record apply = *keyed<scc_acl_apply_record>();
    apply.apply_type = 59;
    EXPECT_EQ(scc_acl_apply(&apply, nullptr), 22U);
    const scc_acl_key no_application{1, 0, 3, 4};
    EXPECT_EQ(scc_user_acl_delete_vmsup(&no_application, nullptr), 22U);
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

TEST_F(LogNames, AreThoseOfTheUserCallsThatKeepAMask) {
    start();
    const named_call rows[] = {
        NAMED(scc_nac_user_set, user(1, 0x202), nullptr),
        NAMED(scc_arp_entry_set, user(1, 0x2, 5), nullptr),
        NAMED(scc_arp_dyn_entry_set, user(1, 0x2, 1), nullptr),
    };
    for (const named_call& row : rows) {
        const test::debugging on;
        EXPECT_EQ(row.call(), 0U) << row.name;
        const auto lines = test::captured_log();
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const test::log_line& line) {
            return line.whole.find("mask") != std::string::npos &&
                   line.whole.rfind(prefix_of(row.name), 0) == 0;
        })) << row.name;
    }
}

TEST_F(LogNames, AreThoseOfTheCacheReadsThatFindNothing) {
    start(1);
    const named_call rows[] = {
        NAMED(scc_acl_cls_get, own_key()),
        NAMED(scc_acl_get_ace, &key, &head),
        NAMED(scc_acl_get_ace_by_sn, &key, 1,
              reinterpret_cast<scc_ace_record*>(keyed<scc_acl_apply_record>())),
    };
    for (const named_call& row : rows) {
        const test::debugging on;
        EXPECT_EQ(row.call(), 2005U) << row.name;
        expect_every_line_named(row.name);
    }
}

struct query_name {
    named_call call;
    std::uint16_t request;
};

TEST_F(LogNames, AreThoseOfTheQueriesThatGetAReplyOfAnotherType) {
    start();
    const query_name rows[] = {
        {NAMED(scc_mac_query, mac, &number), 315},
        {NAMED(scc_sp_port_addr_num, &config, nullptr), 317},
        {NAMED(scc_nac_span_dport_set, &config, nullptr), 316},
        {NAMED(scc_nac_user_get, user(2)), 307},
        {NAMED(scc_is_arp_check_enabled, room), 303},
        {NAMED(scc_arp_check_user_count_get, 1, &number), 304},
        {NAMED(scc_arp_check_user_data_get, 1, room, room_for_two()), 305},
        {NAMED(scc_user_acl_change_vmsup, keyed<scc_user_acl_record>(), room), 314},
        {NAMED(scc_acl_get_filter_counter, &key, &counter), 311},
        {NAMED(scc_acl_get_counter, &key, &counter), 312},
        {NAMED(scc_ace_get_counter, &key, 1, &counter), 313},
    };
    for (const query_name& row : rows) {
        const test::debugging on;
        // The reply is on the socket before the request is sent.
        daemon.send_item(side::sync, 999, wire().zeros(8));
        EXPECT_EQ(row.call.call(), 2007U) << row.call.name;
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request);
        expect_every_line_named(row.call.name);
    }
}

TEST_F(LogNames, AreThoseOfTheCountersThatTheDaemonRefuses) {
    start();
    const std::pair<named_call, std::uint16_t> rows[] = {
        {NAMED(scc_acl_get_filter_counter, &key, &counter), 409},
        {NAMED(scc_acl_get_counter, &key, &counter), 408},
        {NAMED(scc_ace_get_counter, &key, 1, &counter), 407},
    };
    for (const auto& [row, reply] : rows) {
        const test::debugging on;
        daemon.send_item(side::sync, reply, wire().zeros(24).u32(2005).to(40).u32(2005));
        EXPECT_EQ(row.call(), 2005U) << row.name;
        daemon.read_item(side::sync);
        expect_every_line_named(row.name);
    }
}

}  // namespace
