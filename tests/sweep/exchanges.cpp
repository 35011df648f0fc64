#include "sweep/exchanges.h"

#include <cstring>
#include <string>
#include <vector>

#include "sweep/life.h"

namespace sweep {
namespace {

using test::bytes;
using test::item_bytes;
using test::wire;

bool g_restarting = false;

scc_user_record user(std::uint32_t operation) {
    scc_user_record record{};
    record.operation = operation;
    return record;
}

template <class Record>
Record keyed(std::uint32_t acl_id) {
    Record record{};
    record.key = key_of(acl_id);
    return record;
}

scc_config_record form(std::uint32_t number) {
    scc_config_record record{};
    record.form = number;
    return record;
}

const scc_config_record g_config = form(9);
const scc_config_record g_second_form = form(10);
const scc_user_record g_user = user(SCC_USER_OPERATION_ADD);
const scc_user_record g_deleted = user(SCC_USER_OPERATION_DELETE);
const scc_acl_key g_key = key_of(3);
const scc_ace_record g_ace{};
const scc_neighbour_record g_neighbour{};
const scc_vlan_record g_vlans{};
scc_acl_apply_record g_apply = keyed<scc_acl_apply_record>(3);
const scc_user_acl_record g_user_acl = keyed<scc_user_acl_record>(3);

struct request {
    const char* name;
    result (*call)(std::uint32_t* call_id);
};

#define REQUEST(call)                                            \
    {                                                            \
#call, [](std::uint32_t * id) -> result { return call; } \
    }

const request g_requests[] = {
    REQUEST(scc_d1x_authen_method(&g_config, id)),
    REQUEST(scc_d1x_author_mode_set(&g_config, id)),
    REQUEST(scc_d1x_port_addr_num(&g_config, id)),
    REQUEST(scc_d1x_port_open(&g_config, id)),
    REQUEST(scc_d1x_set_pt_ctrl(&g_config, id)),
    REQUEST(scc_d1x_set_cos(&g_config, id)),
    REQUEST(scc_d1x_set_dscp(&g_config, id)),
    REQUEST(scc_dot1x_redirect_enable(1, id)),
    REQUEST(scc_d1x_mac_move(1, id)),
    REQUEST(scc_webauth_set(&g_config, id)),
    REQUEST(scc_http_dport_set(80, 1, id)),
    REQUEST(scc_dirchn_host_set(1, 2, 3, 4, 5, id)),
    REQUEST(scc_dirchn_server_set(1, 2, id)),
    REQUEST(scc_dirchn_site_set(1, 2, 3, 4, id)),
    REQUEST(scc_dirchn_arp_set(1, 2, 3, id)),
    REQUEST(scc_sp_port_secuity(&g_config, id)),
    REQUEST(scc_sp_port_violate(&g_config, id)),
    REQUEST(scc_global_ip_mac(&g_config, id)),
    REQUEST(scc_ip_source_guard_status(&g_config, id)),
    REQUEST(scc_bind_except_port(&g_config, id)),
    REQUEST(scc_dhcp_trust_port(&g_config, id)),
    REQUEST(scc_dhcp_snooping_set(&g_config, id)),
    REQUEST(scc_dhcp_snooping_set(&g_second_form, id)),
    REQUEST(scc_nd_snooping_set(&g_config, id)),
    REQUEST(scc_arpcheck(&g_config, id)),
    REQUEST(scc_arpcheck_trust(&g_config, id)),
    REQUEST(scc_addr_learning(1, 1, id)),
    REQUEST(scc_nac_esc_set(1, &g_key, 1, id)),
    REQUEST(scc_nac_esc_eport_set(&g_config, id)),
    REQUEST(scc_nac_app_set(&g_config, id)),
    REQUEST(scc_nac_user_set(&g_user, id)),
    REQUEST(scc_nac_user_set(&g_deleted, id)),
    REQUEST(scc_arp_entry_set(&g_user, id)),
    REQUEST(scc_arp_dyn_entry_set(&g_user, id)),
    REQUEST(scc_ndsnp_default_bind_set(1, 2, 3, id)),
    REQUEST(scc_nac_nbr_set(&g_neighbour, 1, id)),
    REQUEST(scc_cpp_set(0, 1, id)),
    REQUEST(scc_offline_detect_cfg(1, 2, 3, id)),
    REQUEST(scc_direct_vlan_set(1, &g_vlans, id)),
    REQUEST(scc_acl_global_eport_set(1, 2, id)),
    REQUEST(scc_svi_router_acl_set(1, id)),
    REQUEST(scc_efacl_ctrl("data", 4, id)),
    REQUEST(scc_acl_create(&g_key, id)),
    REQUEST(scc_acl_add_ace(&g_key, &g_ace, id)),
    REQUEST(scc_acl_delete_ace(&g_key, &g_ace, id)),
    REQUEST(scc_acl_delete(&g_key, id)),
    REQUEST(scc_acl_apply(&g_apply, id)),
    REQUEST(scc_acl_unapply(&g_apply, id)),
    REQUEST(scc_acl_reseqence(&g_key, 1, 1, id)),
    REQUEST(scc_user_acl_apply(&g_user_acl, id)),
    REQUEST(scc_user_acl_unapply(&g_user_acl, id)),
    REQUEST(scc_user_acl_delete_vmsup(&g_key, id)),
    REQUEST(scc_acl_reset_filter_counter(&g_key, id)),
    REQUEST(scc_acl_reset_counter(&g_key, id)),
    REQUEST(scc_ace_reset_counter(&g_key, 1, id)),
};

void check_answer(const char* name, result outcome, bool right) {
    if (outcome == 0 && !right) {
        complain(std::string(name) + " got the answer to another question");
    }
}

void query_mac(caller make, std::uint8_t last) {
    const std::uint8_t mac[6] = {1, 2, 3, 4, 5, last};
    std::uint32_t ip = 0;
    const result outcome = make("scc_mac_query", [&] { return scc_mac_query(mac, &ip); });
    check_answer("scc_mac_query", outcome, ip == address_of(mac));
}

void query_count(caller make, std::uint32_t key) {
    std::uint32_t count = 0;
    const result outcome =
        make("scc_arp_check_user_count_get", [&] { return scc_arp_check_user_count_get(key, &count); });
    check_answer("scc_arp_check_user_count_get", outcome, count == count_of(key));
}

void query_users(caller make, std::uint32_t selector) {
    scc_arp_check_entry entries[2] = {};
    int count = 2;
    const result outcome = make("scc_arp_check_user_data_get",
                                [&] { return scc_arp_check_user_data_get(selector, entries, &count); });
    std::uint32_t first = 0;
    std::memcpy(&first, entries[0].bytes, sizeof first);
    check_answer("scc_arp_check_user_data_get", outcome, count == 1 && first == count_of(selector));
}

void query_user(caller make, std::uint8_t mark) {
    scc_user_record record = user(SCC_USER_OPERATION_GET);
    record.tail[0] = mark;
    const result outcome = make("scc_nac_user_get", [&] { return scc_nac_user_get(&record); });
    check_answer("scc_nac_user_get", outcome, record.tail[0] == mark);
}

void query_counters(caller make, std::uint32_t acl_id) {
    const scc_acl_key key = key_of(acl_id);
    std::uint64_t counter = 0;
    result outcome =
        make("scc_acl_get_filter_counter", [&] { return scc_acl_get_filter_counter(&key, &counter); });
    check_answer("scc_acl_get_filter_counter", outcome, counter == counter_of(acl_id, 0));
    outcome = make("scc_acl_get_counter", [&] { return scc_acl_get_counter(&key, &counter); });
    check_answer("scc_acl_get_counter", outcome, counter == counter_of(acl_id, 0));
    outcome = make("scc_ace_get_counter", [&] { return scc_ace_get_counter(&key, 5, &counter); });
    check_answer("scc_ace_get_counter", outcome, counter == counter_of(acl_id, 5));
}

void query_binding(caller make, std::uint32_t ifx) {
    scc_user_acl_record record = keyed<scc_user_acl_record>(3);
    record.ifx = ifx;
    std::uint8_t out[16] = {};
    const result outcome =
        make("scc_user_acl_change_vmsup", [&] { return scc_user_acl_change_vmsup(&record, out); });
    std::uint32_t answered = 0;
    std::memcpy(&answered, out, sizeof answered);
    check_answer("scc_user_acl_change_vmsup", outcome, answered == ifx);
}

}  // namespace

scc_acl_key key_of(std::uint32_t acl_id) {
    return {1, 2, acl_id, 4};
}

std::uint32_t ask(const char* name, const std::function<result(std::uint32_t*)>& call) {
    std::uint32_t call_id = 0;
    if (attempt(name, [&] { return call(&call_id); }) != 0) {
        return 0;
    }
    remember_call(call_id);
    return call_id;
}

bool ask_and_wait(const char* name, const std::function<result(std::uint32_t*)>& call) {
    const std::uint32_t call_id = ask(name, call);
    return call_id != 0 && wait_for(name, [call_id] { return has_result(call_id); });
}

void ask_everything() {
    for (const request& one : g_requests) {
        ask_and_wait(one.name, one.call);
    }
}

void ask_a_burst() {
    std::vector<std::uint32_t> calls;
    for (int i = 0; i < 40; ++i) {
        calls.push_back(
            ask("scc_d1x_port_open", [](std::uint32_t* id) { return scc_d1x_port_open(&g_config, id); }));
    }
    for (const std::uint32_t call_id : calls) {
        if (call_id != 0) {
            wait_for("result of a burst", [call_id] { return has_result(call_id); });
        }
    }
    const bytes large(8168, 1);
    timed("scc_efacl_ctrl", [&] { return scc_efacl_ctrl(large.data(), 8168, nullptr); });
}

void say_one_way() {
    const unsigned before = the_daemon().arrived(220);
    if (attempt("scc_warterline_notify", [] { return scc_warterline_notify(1); }) == 0) {
        wait_for("water line", [before] { return the_daemon().arrived(220) > before; });
    }
    attempt("scc_test_cmd_set", [] { return scc_test_cmd_set(1); });
    attempt("scc_data_recover", [] { return scc_data_recover(1); });
}

void switch_log_on() {
    the_daemon().send({item_bytes(206, wire().zeros(24).u32(1).zeros(4).u32(1).zeros(4))});
}

void hear_notifications() {
    const std::vector<bytes> items = {
        item_bytes(110, wire().zeros(4).u32(1).zeros(16)),
        item_bytes(127, wire().zeros(16).u8(1).to(80)),
        item_bytes(209, wire().u32(1).u8(1).to(16)),
        item_bytes(210, wire().zeros(4).u8(1)),
        item_bytes(211, wire().zeros(80)),
        item_bytes(212, wire().zeros(80).u32(4).zeros(4).u32(7)),
        item_bytes(213, wire().zeros(8 + sizeof(scc_vlan_record))),
        item_bytes(214, wire().zeros(4).u32(1)),
        item_bytes(216, wire().zeros(8).u32(1)),
        item_bytes(217, wire().zeros(60).u8(1)),
        item_bytes(219, wire().zeros(24)),
        item_bytes(407, wire().zeros(20).u32(1).zeros(16)),
    };
    const unsigned before = notifications();
    const auto all = static_cast<unsigned>(items.size());
    // Together in one message, then each in its own.
    the_daemon().send(items);
    for (const bytes& item : items) {
        the_daemon().send({item});
    }
    the_daemon().send(
        {item_bytes(220, wire().u32(1)), item_bytes(406, wire().u64(1)), item_bytes(999, wire())});
    wait_for("notifications", [=] { return notifications() >= before + 2 * all; });
}

void answer_the_daemon() {
    for (const std::uint16_t question : {std::uint16_t{318}, std::uint16_t{319}}) {
        const unsigned before = the_daemon().arrived(question);
        the_daemon().send({item_bytes(question, wire())});
        wait_for("answer to the daemon", [=] { return the_daemon().arrived(question) > before; });
    }
}

void hear_a_long_message() {
    const unsigned before = notifications();
    the_daemon().send({item_bytes(999, wire().zeros(40000)), item_bytes(214, wire().zeros(4).u32(1))});
    wait_for("long message", [before] { return notifications() > before; });
}

void query_everything(caller make, std::uint8_t round) {
    query_mac(make, round);
    query_count(make, round);
    query_users(make, round);
    query_user(make, round);
    query_counters(make, round);
    query_binding(make, round);
    make("scc_nac_span_dport_set", [] { return scc_nac_span_dport_set(&g_config, nullptr); });
    make("scc_sp_port_addr_num", [] { return scc_sp_port_addr_num(&g_config, nullptr); });
    std::uint8_t enabled = 0;
    make("scc_is_arp_check_enabled", [&] { return scc_is_arp_check_enabled(&enabled); });
    make("scc_nac_user_counter_support", [&] { return scc_nac_user_counter_support(&enabled); });
}

result call_strictly(const char* name, const std::function<result()>& call) {
    require(name, call);
    return 0;
}

bool has_batch() {
    result outcome = 0;
    // The connection may be lost once more if the fault struck late.
    wait_for("a command that is taken", [&outcome] {
        outcome = timed("scc_test_cmd_set", [] { return scc_test_cmd_set(1); });
        return outcome == 0 || outcome == 12;
    });
    return outcome != 12;
}

void set_restarting(bool restarting) {
    g_restarting = restarting;
}

void restart_daemon() {
    if (!g_restarting) {
        return;
    }
    const unsigned before = losses();
    the_daemon().restart();
    wait_for("loss of the daemon", [before] { return losses() > before; });
    wait_for("registration with the new daemon", is_registered);
}

}  // namespace sweep
