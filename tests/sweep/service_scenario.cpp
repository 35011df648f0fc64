#include "sweep/service_scenario.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "sweep/exchanges.h"
#include "sweep/life.h"

namespace sweep {
namespace {

using test::bytes;
using test::item_bytes;
using test::wire;

scc_ss_reg_info g_service{};

bool g_started = false;

std::atomic<unsigned> g_operations_seen{0};

template <class Record>
int answer(Record* operation) {
    ++g_operations_seen;
    operation->ret = 0;
    operation->callback(operation, sizeof *operation);
    return 0;
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
    const scc_acl_key key = key_of(3);
    const scc_ace_counter counter{};
    attempt("scc_ss_ace_counter_notify", [&] { return scc_ss_ace_counter_notify(&key, 1, &counter); });
    attempt("scc_ss_fetch_func", scc_ss_fetch_func);
}

void start_service() {
    for (int tries = 0; tries < 3 && !g_started; ++tries) {
        g_started = attempt("scc_ss_reg", [] { return scc_ss_reg(&g_service); }) == 0;
        if (!g_started) {
            forget_failed_start();
        }
    }
    wait_for("registration", is_registered);
}

}  // namespace

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

}  // namespace sweep
