#include "sweep/scenarios.h"

#include <qx_thread.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "client/control_block.h"
#include "client/pending_calls.h"
#include "sweep/exchanges.h"
#include "sweep/life.h"
#include "sweep/service_scenario.h"
#include "sweep/shim.h"

namespace sweep {
namespace {

using test::item_bytes;
using test::wire;

// ---- applications ----------------------------------------------------------------------------------

scc_reg_info g_info{};
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
    if (outcome != 0) {
        forget_failed_start();
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
    set_restarting(one.restarting);
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
