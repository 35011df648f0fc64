#include "sweep/scenarios.h"

#include <qx_thread.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "client/control_block.h"
#include "client/pending_calls.h"
#include "sweep/life.h"
#include "sweep/shim.h"

namespace sweep {
namespace {

using test::bytes;
using test::item_bytes;
using test::wire;
using result = std::uint32_t;

scc_user_record user(std::uint32_t operation) {
    scc_user_record record{};
    record.operation = operation;
    return record;
}

scc_acl_key key_of(std::uint32_t acl_id) {
    return {1, 2, acl_id, 4};
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

// ---- requests --------------------------------------------------------------------------------------

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

// Makes the request; returns its call id if it was accepted, otherwise 0.
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

// More requests than fit into a batch.
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

// Switches the log on, so that its lines are made too.
void switch_log_on() {
    the_daemon().send({item_bytes(206, wire().zeros(24).u32(1).zeros(4).u32(1).zeros(4))});
}

// ---- notifications ---------------------------------------------------------------------------------

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

// Longer than the receive buffer, so that its body is read separately.
void hear_a_long_message() {
    const unsigned before = notifications();
    the_daemon().send({item_bytes(999, wire().zeros(40000)), item_bytes(214, wire().zeros(4).u32(1))});
    wait_for("long message", [before] { return notifications() > before; });
}

// ---- queries ---------------------------------------------------------------------------------------

void check_answer(const char* name, result outcome, bool right) {
    if (outcome == 0 && !right) {
        complain(std::string(name) + " got the answer to another question");
    }
}

using caller = result (*)(const char* name, const std::function<result()>& call);

result call_strictly(const char* name, const std::function<result()>& call) {
    require(name, call);
    return 0;
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

// ---- applications ----------------------------------------------------------------------------------

scc_reg_info g_info{};
bool g_restarting = false;
bool g_on_loop = false;
qx_thread_master* g_master = nullptr;
std::thread g_loop;

using work = std::packaged_task<result()>;

int run_work(qx_thread* task) {
    (*static_cast<work*>(qx_thread_arg(task)))();
    return 0;
}

result on_loop(const std::function<result()>& function) {
    work packaged(function);
    auto outcome = packaged.get_future();
    if (qx_thread_add_event_withname(g_master, run_work, &packaged, 0, "sweep") == nullptr) {
        return ~0U;
    }
    return outcome.get();
}

bool g_started = false;

result register_application() {
    const result outcome =
        g_on_loop ? on_loop([] { return scc_agent_init(&g_info, g_master); }) : scc_svr_reg(&g_info);
    g_started = g_started || outcome == 0;
    // A start that fails late may have registered for a moment.
    if (outcome != 0) {
        forget_registration();
    }
    return outcome;
}

// Returns 0 and changes nothing while the client is not registered.
result unregister_application() {
    const result outcome = g_on_loop ? on_loop(scc_agent_finish) : scc_svr_unreg();
    if (outcome == 0 && g_scc_client_cb.app_id.load() == 0) {
        g_started = false;
        forget_registration();
    }
    return outcome;
}

void prepare_application(bool loop, std::uint8_t option) {
    g_info.app_id = 7;
    g_info.option = option;
    set_handlers(g_info.handlers);
    g_on_loop = loop;
    if (loop) {
        expect_loss_first();
        g_master = qx_thread_master_create();
        g_loop = std::thread([] { qx_thread_master_run(g_master); });
    }
}

// A start may fail, and so may the next one, but not without a fault.
void start_application() {
    for (int tries = 0; tries < 3 && !g_started; ++tries) {
        attempt("registration", register_application);
    }
    wait_for("registration", is_registered);
}

void end_application() {
    for (int tries = 0; tries < 3 && g_started; ++tries) {
        attempt("unregistration", unregister_application);
    }
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

// A short second registration, which meets whatever the first one left.
void live_again() {
    end_application();
    start_application();
    ask_and_wait("scc_addr_learning", [](std::uint32_t* id) { return scc_addr_learning(2, 1, id); });
}

void act_application() {
    start_application();
    switch_log_on();
    ask_everything();
    restart_daemon();
    hear_notifications();
    answer_the_daemon();
    hear_a_long_message();
    ask_a_burst();
    say_one_way();
    live_again();
}

void act_queries() {
    start_application();
    query_everything(attempt, 1);
    restart_daemon();
    query_everything(attempt, 2);
    live_again();
    query_everything(attempt, 3);
}

scc_ace_record ace_with(std::uint32_t number) {
    scc_ace_record ace{};
    ace.sn = number;
    ace.ace_id = number;
    return ace;
}

// ACEs in order and out of order, and more ACLs than fit into the first index.
void fill_cache(std::uint32_t first) {
    for (std::uint32_t acl = first; acl < first + 3; ++acl) {
        const scc_acl_key key = key_of(acl);
        ask_and_wait("scc_acl_create", [&](std::uint32_t* id) { return scc_acl_create(&key, id); });
        for (const std::uint32_t number : {10U, 20U, 30U, 5U, 15U, 25U}) {
            const scc_ace_record ace = ace_with(number);
            ask_and_wait("scc_acl_add_ace",
                         [&](std::uint32_t* id) { return scc_acl_add_ace(&key, &ace, id); });
        }
    }
}

void read_cache(std::uint32_t acl) {
    scc_acl_key key = key_of(acl);
    timed("scc_acl_cls_get", [&] { return scc_acl_cls_get(&key); });
    scc_ace_record ace{};
    timed("scc_acl_get_ace_by_sn", [&] { return scc_acl_get_ace_by_sn(&key, 15, &ace); });
    scc_list_head aces{&aces, &aces};
    timed("scc_acl_get_ace", [&] { return scc_acl_get_ace(&key, &aces); });
    while (aces.next != &aces) {
        scc_list_head* first = aces.next;
        aces.next = first->next;
        first->next->prev = &aces;
        free_block(reinterpret_cast<scc_ace_record*>(first));
    }
}

void show_cache() {
    the_daemon().send({item_bytes(206, wire().zeros(24).u32(1).zeros(4).u32(3).u32(1).zeros(12))});
    answer_the_daemon();
}

void change_cache(std::uint32_t acl) {
    const scc_acl_key key = key_of(acl);
    const scc_ace_record ace = ace_with(10);
    ask_and_wait("scc_acl_delete_ace", [&](std::uint32_t* id) { return scc_acl_delete_ace(&key, &ace, id); });
    ask_and_wait("scc_acl_reseqence", [&](std::uint32_t* id) { return scc_acl_reseqence(&key, 5, 5, id); });
}

void act_cache() {
    start_application();
    switch_log_on();
    fill_cache(1);
    read_cache(1);
    show_cache();
    change_cache(2);
    restart_daemon();
    fill_cache(11);
    read_cache(12);
    const scc_acl_key key = key_of(11);
    ask_and_wait("scc_acl_delete", [&](std::uint32_t* id) { return scc_acl_delete(&key, id); });
    live_again();
}

void act_agent() {
    scc_agent_set_connect_callback([] { count_notification(); });
    start_application();
    switch_log_on();
    ask_everything();
    restart_daemon();
    hear_notifications();
    answer_the_daemon();
    hear_a_long_message();
    ask_a_burst();
    query_everything(attempt, 1);
    live_again();
}

// A request goes out and its result comes back.
bool does_one_request(int patience_ms) {
    std::uint32_t call_id = 0;
    const result outcome = timed("scc_addr_learning", [&] { return scc_addr_learning(1, 1, &call_id); });
    if (outcome != 0) {
        if (outcome != 2004) {
            complain("scc_addr_learning returned " + std::to_string(outcome) + " after the fault");
        }
        return false;
    }
    remember_call(call_id);
    return wait_at_most(patience_ms, [call_id] { return has_result(call_id); });
}

bool does_a_request_soon() {
    return does_one_request(500);
}

void prove_cache() {
    const scc_acl_key key = key_of(77);
    const scc_ace_record ace = ace_with(7);
    ask_and_wait("scc_acl_create", [&](std::uint32_t* id) { return scc_acl_create(&key, id); });
    ask_and_wait("scc_acl_add_ace", [&](std::uint32_t* id) { return scc_acl_add_ace(&key, &ace, id); });
    (void)does_one_request(proof_bound_seconds * 1000);  // the cache follows the handler
    scc_ace_record found{};
    require("scc_acl_get_ace_by_sn", [&] { return scc_acl_get_ace_by_sn(&key, 7, &found); });
    if (found.ace_id != 7) {
        complain("the cache holds another ACE");
    }
}

// A start that finds no memory for its batch succeeds; requests are then 12 until the next start.
bool has_batch() {
    result outcome = 0;
    // The connection may be lost once more if the fault struck late.
    wait_for("a command that is taken", [&outcome] {
        outcome = timed("scc_test_cmd_set", [] { return scc_test_cmd_set(1); });
        return outcome == 0 || outcome == 12;
    });
    return outcome != 12;
}

// After a transient read error, an event loop does not read the connection until the daemon ends it.
bool works_or_needs_a_new_daemon() {
    if (wait_at_most(3000, does_a_request_soon)) {
        return true;
    }
    if (g_on_loop) {
        the_daemon().restart();
    }
    return wait_for("a request that works", does_a_request_soon);
}

void prove_application() {
    if (!g_started) {
        require("registration", register_application);
    }
    if (!wait_for("registration", is_registered)) {
        return;
    }
    if (!has_batch()) {
        require("unregistration", unregister_application);
        require("registration", register_application);
    }
    // Damage by the fault may be noticed only now, so one success does not prove recovery.
    for (int proven = 0; proven < 2; ++proven) {
        if (!works_or_needs_a_new_daemon()) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    if (!wait_for("registration", is_registered)) {
        return;
    }
    if (!does_one_request(proof_bound_seconds * 1000)) {
        complain("a request fails although others went through");
    }
    query_everything(call_strictly, 77);
    if (g_info.option == 1) {
        prove_cache();
    }
    require("unregistration", unregister_application);
    if (g_scc_client_cb.app_id.load() != 0) {
        complain("still registered after the unregistration");
    }
    require(
        "scc_addr_learning", [] { return scc_addr_learning(1, 1, nullptr); }, 2004);
}

void stop_loop() {
    if (g_on_loop) {
        qx_thread_master_stop(g_master);
        g_loop.join();
    }
}

// ---- the service -----------------------------------------------------------------------------------

scc_ss_reg_info g_service{};

std::atomic<unsigned> g_operations_seen{0};

template <class Record>
int answer(Record* operation) {
    ++g_operations_seen;
    operation->ret = 0;
    operation->callback(operation, sizeof *operation);
    return 0;
}

void prepare_service() {
    g_service.server_status = on_status;
    g_service.acl_create = answer<scc_ss_acl_operation>;
    g_service.acl_delete = answer<scc_ss_acl_operation>;
    g_service.add_ace = answer<scc_ss_ace_operation>;
    g_service.delete_ace = answer<scc_ss_ace_operation>;
    g_service.apply = answer<scc_ss_apply_operation>;
    g_service.unapply = answer<scc_ss_apply_operation>;
    g_service.resequence = answer<scc_ss_resequence_operation>;
    g_service.svi_router_acl = answer<scc_ss_svi_operation>;
    g_service.acl_counter = answer<scc_ss_counter_operation>;
    g_service.ace_counter = answer<scc_ss_counter_operation>;
    g_service.uplink = answer<scc_ss_eport_operation>;
    g_service.cpp = answer<scc_ss_cpp_operation>;
    g_service.direct_vlan_notify = [](const scc_vlan_record*) { count_notification(); };
    g_service.authmode = [](std::uint32_t) { count_notification(); };
    g_service.app_set = [](std::uint32_t id, std::uint32_t op, std::uint32_t ifx, std::uint32_t type) {
        return static_cast<int>(scc_ssc_nacm_app_op_callback(0, id, op, ifx, type));
    };
    g_service.app_set_with_vid = [](std::uint32_t id, std::uint32_t op, std::uint32_t ifx, std::uint32_t vid,
                                    std::uint32_t type) {
        return static_cast<int>(scc_ssc_nacm_app_op_with_vid_callback(0, id, op, ifx, vid, type));
    };
    g_service.def_read = [](std::uint32_t id, std::uint32_t ifx, std::uint32_t type) {
        return static_cast<int>(scc_ssc_nacm_def_read_callback(0, id, ifx, type));
    };
    g_service.http_l4port_set = [](std::uint32_t id, std::uint32_t add, std::uint32_t port) {
        return static_cast<int>(scc_ssc_nacm_http_l4port_set_callback(0, id, add, port));
    };
    g_service.user_op = [](std::uint32_t id, std::uint8_t add, const scc_ss_user* entry) {
        return static_cast<int>(scc_ssc_nacm_user_op_callback(0, id, add, entry));
    };
    g_service.user_read = [](std::uint32_t, scc_ss_user*) {
        count_notification();
        return 0;
    };
    g_service.user_reinstall = [](std::uint32_t id, std::uint32_t start, std::uint32_t ifx) {
        return static_cast<int>(scc_ssc_nacm_user_reinstall_callback(0, id, start, ifx));
    };
    g_service.app_user_recover = [](std::uint32_t, std::uint32_t, std::uint32_t, const void*) {
        count_notification();
        return 0;
    };
    g_service.l4port_recover = [](std::uint32_t, const void*) {
        count_notification();
        return 0;
    };
    g_service.data_recover = [](std::uint8_t) { return 0; };
    g_service.offline_detect_cfg = [](std::uint32_t id, std::uint8_t open, std::uint32_t interval,
                                      std::uint32_t threshold) {
        return static_cast<int>(scc_offline_detect_cfg_ret_callback(0, id, open, interval, threshold));
    };
}

std::uint32_t g_last_operation = 1000;

struct operation {
    std::uint16_t type;
    std::size_t value_bytes;
    std::size_t flag_offset;  // of the word that is set to flag
    std::uint32_t flag;
};

// Each is answered under its own id.
const operation g_operations[] = {
    {131, 140, 136, 1}, {131, 140, 136, 0}, {132, 940, 936, 1}, {132, 940, 936, 0}, {133, 244, 240, 1},
    {133, 244, 240, 0}, {138, 28, 20, 1},   {140, 36, 32, 0},   {141, 36, 32, 0},   {142, 12, 8, 1},
    {143, 8, 4, 1},     {148, 16, 12, 2},   {149, 12, 4, 1},    {150, 20, 16, 1},   {151, 96, 4, 1},
    {153, 12, 8, 1},    {158, 24, 12, 2},   {163, 12, 4, 1},    {201, 9, 4, 1},     {209, 16, 8, 5},
    {312, 36, 32, 1},   {313, 36, 32, 1},
};

bytes make_operation(const operation& one, std::uint32_t id) {
    bytes value(one.value_bytes, 0);
    std::memcpy(value.data() + one.flag_offset, &one.flag, sizeof one.flag);
    std::memcpy(value.data(), &id, sizeof id);
    return item_bytes(one.type, value, 9);
}

bool answers_one_operation() {
    const std::uint32_t id = ++g_last_operation;
    the_daemon().send({make_operation(g_operations[0], id)});
    return wait_at_most(500, [id] { return the_daemon().service_results(id) > 0; });
}

void operate_everything() {
    for (const operation& one : g_operations) {
        const std::uint32_t id = ++g_last_operation;
        the_daemon().send({make_operation(one, id)});
        wait_for("the service's result", [id] { return the_daemon().service_results(id) > 0; });
    }
    const unsigned before = notifications();
    the_daemon().send({item_bytes(152, wire().zeros(96)), item_bytes(154, wire().zeros(40)),
                       item_bytes(155, wire().zeros(28)), item_bytes(213, wire().zeros(520)),
                       item_bytes(214, wire().zeros(8)), item_bytes(205, wire().u32(0))});
    wait_for("the service's notifications", [before] { return notifications() >= before + 5; });
}

void operate_a_burst() {
    std::vector<bytes> together;
    const std::uint32_t first = g_last_operation + 1;
    for (int i = 0; i < 10; ++i) {
        together.push_back(make_operation(g_operations[2], ++g_last_operation));
    }
    the_daemon().send(together);
    for (std::uint32_t id = first; id <= g_last_operation; ++id) {
        wait_for("results of a burst", [id] { return the_daemon().service_results(id) > 0; });
    }
}

void report_everything() {
    const scc_address_move move{};
    attempt("scc_ss_move_addr_notify", [&] { return scc_ss_move_addr_notify(1, &move); });
    const scc_flow_user flowing{};
    attempt("scc_noflow_offline_notify",
            [&] { return scc_noflow_offline_notify(&flowing, 1, 2, "more", 4); });
    attempt("scc_flow_notify", [&] { return scc_flow_notify(&flowing, 1, 2); });
    const scc_ace_counter counter{};
    attempt("scc_ss_ace_counter_notify", [&] { return scc_ss_ace_counter_notify(&g_key, 1, &counter); });
    attempt("scc_ss_fetch_func", scc_ss_fetch_func);
}

void start_service() {
    for (int tries = 0; tries < 3 && !g_started; ++tries) {
        g_started = attempt("scc_ss_reg", [] { return scc_ss_reg(&g_service); }) == 0;
    }
    wait_for("registration", is_registered);
}

void act_service() {
    start_service();
    switch_log_on();
    operate_everything();
    restart_daemon();
    operate_everything();
    operate_a_burst();
    report_everything();
}

void prove_service() {
    if (!g_started) {
        require("scc_ss_reg", [] { return scc_ss_reg(&g_service); });
    }
    if (!wait_for("registration", is_registered)) {
        return;
    }
    // The service never ends its registration, so without a batch it gets operations and cannot answer them.
    if (!has_batch()) {
        const unsigned before = g_operations_seen;
        wait_for("an operation that is seen", [before] {
            (void)answers_one_operation();
            return g_operations_seen > before;
        });
        return;
    }
    for (int proven = 0; proven < 2; ++proven) {
        if (!wait_for("an operation that is answered", answers_one_operation)) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    if (!wait_for("registration", is_registered)) {
        return;
    }
    operate_everything();
    const unsigned before = the_daemon().arrived(204);
    require("scc_ss_fetch_func", scc_ss_fetch_func);
    wait_for("the fetch", [before] { return the_daemon().arrived(204) > before; });
}

// ---- the table -------------------------------------------------------------------------------------

void prepare_thread_mode() {
    prepare_application(false, 0);
}

void prepare_cache_mode() {
    prepare_application(false, 1);
}

void prepare_loop_mode() {
    prepare_application(true, 0);
}

constexpr scenario g_scenarios[] = {
    {"application", prepare_thread_mode, act_application, prove_application, nullptr, 1, false},
    {"application-restart", prepare_thread_mode, act_application, prove_application, nullptr, 1, true},
    {"queries", prepare_thread_mode, act_queries, prove_application, nullptr, 1, false},
    {"queries-restart", prepare_thread_mode, act_queries, prove_application, nullptr, 1, true},
    {"cache", prepare_cache_mode, act_cache, prove_application, nullptr, 1, false},
    {"cache-restart", prepare_cache_mode, act_cache, prove_application, nullptr, 1, true},
    {"service", prepare_service, act_service, prove_service, nullptr, 3, false},
    {"service-restart", prepare_service, act_service, prove_service, nullptr, 3, true},
    {"agent", prepare_loop_mode, act_agent, prove_application, stop_loop, 1, false},
    {"agent-restart", prepare_loop_mode, act_agent, prove_application, stop_loop, 1, true},
};

unsigned entries_of(const char* directory) {
    unsigned count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        static_cast<void>(entry);
        ++count;
    }
    return count;
}

std::string names_of(const char* directory) {
    std::string out;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::error_code ignored;
        out += " " + entry.path().filename().string() + "=" +
               std::filesystem::read_symlink(entry, ignored).string();
    }
    return out;
}

// Generous: an idle block is freed after forty passes of the checker, each of which a busy machine may delay.
constexpr int leftover_bound_ms = 60000;

void check_nothing_is_left(const scenario& one, unsigned descriptors, int blocks_left) {
    const unsigned threads = 2 + one.threads_left;  // this one and the watchdog of the calls
    if (!wait_at_most(leftover_bound_ms, [&] { return entries_of("/proc/self/task") == threads; })) {
        complain(std::to_string(entries_of("/proc/self/task")) + " threads, expected " +
                 std::to_string(threads));
    }
    if (!wait_at_most(leftover_bound_ms, [&] { return entries_of("/proc/self/fd") == descriptors; })) {
        complain(std::to_string(entries_of("/proc/self/fd")) + " descriptors, expected " +
                 std::to_string(descriptors) + ":" + names_of("/proc/self/fd"));
    }
    if (!wait_at_most(leftover_bound_ms, [] { return open_streams() == 0; })) {
        complain("a stream is left open");
    }
    if (blocks_left >= 0 && !wait_at_most(leftover_bound_ms, [&] {
            return block_count() <= static_cast<unsigned>(blocks_left);
        })) {
        complain(std::to_string(block_count()) + " blocks of memory are left, expected " +
                 std::to_string(blocks_left) + "; " + std::to_string(scc::pending_calls()) +
                 " calls are pending");
        for (const live_blocks& left : blocks()) {
            std::printf("left %s %zx %u\n", left.call.c_str(), left.site, left.blocks);
        }
    }
    if (strange_frees() != 0) {
        complain(std::to_string(strange_frees()) + " blocks were freed that the library did not have");
    }
}

// Lines of other processes, so that the switch file is read to its end.
void write_switch_file(const std::string& directory) {
    std::filesystem::create_directories(directory + "/security/scc");
    std::ofstream(directory + "/security/scc/scclib_dbg.txt") << "another 1\nand-another 0\n";
}

}  // namespace

std::span<const scenario> scenarios() {
    return g_scenarios;
}

int run_scenario(const scenario& one, const std::string& directory, int blocks_left) {
    setenv("TMPDIR", directory.c_str(), 1);
    setenv("DATA_QXOS_DIR", directory.c_str(), 1);
    write_switch_file(directory);
    g_restarting = one.restarting;
    const unsigned descriptors = [&] {
        one.prepare();
        return entries_of("/proc/self/fd");
    }();
    begin_life(directory);
    begin_faults();
    one.act();
    end_faults();
    begin_proof();
    one.prove();
    if (the_daemon().malformed() != 0 && !is_met()) {
        complain("the daemon got a malformed message without a fault");
    }
    the_daemon().stop();
    if (one.finish != nullptr) {
        one.finish();
    }
    check_nothing_is_left(one, descriptors, blocks_left);
    return has_failed() ? 1 : 0;
}

}  // namespace sweep
