// The context in which a handler of the service runs: the library's lock, what has been counted and saved,
// and the log lines before and after it.
#include <pthread.h>

#include <cerrno>
#include <set>

#include "client/diagnostics.h"
#include "client/locks.h"
#include "ss/id_map.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

// What a handler finds; it only tries the lock.
struct finding {
    bool locked = false;
    std::uint32_t calls = 0;  // counted so far, of all kinds
    bool saved = false;       // an id is in the map
};

test::event_queue<finding>& findings() {
    static auto* queue = new test::event_queue<finding>;
    return *queue;
}

void look_around() {
    finding found;
    found.locked = pthread_rwlock_trywrlock(&scc_lib_lock) == EBUSY;
    if (!found.locked) {
        pthread_rwlock_unlock(&scc_lib_lock);
    }
    for (std::uint32_t code = 0; code <= 12; ++code) {
        found.calls += scc::read_statistics(code).calls;
    }
    {
        const scc::write_guard guard(scc::id_map_lock);
        found.saved = g_ss_id_map_root.node != nullptr;
    }
    findings().push(found);
}

template <class... Arguments>
int looks_around(Arguments...) {
    look_around();
    return 0;
}

template <class... Arguments>
void notes_around(Arguments...) {
    look_around();
}

struct context_row {
    std::uint16_t type;
    bytes value;
    bool locked;
    std::uint32_t calls;
    bool saved;
};

std::vector<context_row> every_kind() {
    return {
        {131, wire().u32(1).to(136).u32(1), true, 1, true}, {131, wire().u32(1).to(140), true, 1, true},
        {132, wire().u32(1).to(936).u32(1), true, 1, true}, {132, wire().u32(1).to(940), true, 1, true},
        {133, wire().u32(1).to(240).u32(1), true, 1, true}, {133, wire().u32(1).to(244), true, 1, true},
        {138, wire().u32(1).to(28), true, 0, true},         {140, wire().u32(1).to(36), true, 0, true},
        {141, wire().u32(1).to(36), true, 0, true},         {142, wire().u32(1).to(12), true, 0, true},
        {143, wire().u32(1).to(8), true, 0, true},          {163, wire().u32(1).to(12), true, 0, true},
        {312, wire().u32(1).to(36), true, 0, true},         {313, wire().u32(1).to(36), true, 0, true},
        {152, wire().u32(1).to(96), true, 0, false},        {201, wire().u32(1).to(9), true, 0, false},
        {148, wire().u32(1).to(16), false, 0, true},        {149, wire().u32(1).to(12), false, 0, true},
        {150, wire().u32(1).to(20), false, 0, true},        {151, wire().u32(1).to(96), false, 1, true},
        {153, wire().u32(1).to(12), false, 0, true},        {158, wire().u32(1).to(24), false, 0, true},
        {209, wire().u32(1).to(16), false, 0, true},        {154, wire().u32(1).to(16), false, 0, false},
        {155, wire().u32(1).to(8), false, 0, false},        {213, wire().u32(1).to(520), false, 0, false},
        {214, wire().u32(1).to(8), false, 0, false},
    };
}

class HandlerContext : public test::registered_service {
  protected:
    HandlerContext() {
        info.acl_create = looks_around;
        info.acl_delete = looks_around;
        info.add_ace = looks_around;
        info.delete_ace = looks_around;
        info.apply = looks_around;
        info.unapply = looks_around;
        info.resequence = looks_around;
        info.svi_router_acl = looks_around;
        info.acl_counter = looks_around;
        info.ace_counter = looks_around;
        info.uplink = looks_around;
        info.cpp = looks_around;
        info.direct_vlan_notify = notes_around;
        info.authmode = notes_around;
        info.app_set = looks_around;
        info.def_read = looks_around;
        info.http_l4port_set = looks_around;
        info.user_op = looks_around;
        info.user_read = looks_around;
        info.user_reinstall = looks_around;
        info.app_user_recover = looks_around;
        info.l4port_recover = looks_around;
        info.app_set_with_vid = looks_around;
        info.data_recover = looks_around;
        info.offline_detect_cfg = looks_around;
    }

    // Nothing is counted or outstanding, and no handler is running.
    static void start_from_nothing() {
        const scc::write_guard guard(scc::lib_lock);
        scc::empty_id_map();
        _scc_lib_func_stat_reset();
    }

    // What one message leaves in the log; the sending of answers is the checker's.
    std::vector<std::string> log_of(std::uint16_t type, const bytes& value) {
        const test::debugging on;
        send(type, value, 11);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        std::vector<std::string> texts;
        for (const std::string& text : test::log_texts()) {
            if (!text.starts_with("thread msg(")) {
                texts.push_back(text);
            }
        }
        return texts;
    }
};

// A handler that answers through a function of the library must find its lock free; one with a record must
// run without another call of the library in between.
TEST_F(HandlerContext, TheLockIsHeldForRecordsRecoveryAndUserReadAndFreeForAllOthers) {
    start();
    for (const context_row& row : every_kind()) {
        SCOPED_TRACE(row.type);
        start_from_nothing();
        send(row.type, row.value);
        const auto found = findings().wait();
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->locked, row.locked);
    }
}

TEST_F(HandlerContext, TheCallIsCountedAndItsTypeSavedBeforeTheHandlerRuns) {
    start();
    for (const context_row& row : every_kind()) {
        SCOPED_TRACE(row.type);
        start_from_nothing();
        send(row.type, row.value);
        const auto found = findings().wait();
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->calls, row.calls);
        EXPECT_EQ(found->saved, row.saved);
    }
}

TEST_F(HandlerContext, TheLogTellsTheStepsOfAnOperationInTheirOrder) {
    info = test::all_handlers();
    start();
    test::script().answers = 1;
    EXPECT_EQ(log_of(131, wire().u32(61).to(136).u32(1)),
              (std::vector<std::string>{
                  "lib proc msg(num:1, len:156).", "scc-type:11, ss-type:131", "call _scc_ss_acl_op create",
                  "save type node id:61 type:11.",
                  "_scc_ss_acl_op_ret_callback send scc_type:11, type:402, call_id:61, ret:0, lib op type:0",
                  "call ss_acl_create_handler success.", "lib proc msg done.\n"}));
    EXPECT_EQ(log_of(148, wire().u32(62).u32(1).u32(2).u32(0)),
              (std::vector<std::string>{
                  "lib proc msg(num:1, len:32).", "scc-type:11, ss-type:148", "save type node id:62 type:11.",
                  "call _scc_nacm_app_op ifx:1, op:2, type:None", "lib proc msg done.\n"}));
    EXPECT_EQ(log_of(209, wire().u32(63).u8(1).zeros(3).u32(60).u32(1000)),
              (std::vector<std::string>{"lib proc msg(num:1, len:32).", "scc-type:11, ss-type:209",
                                        "call _scc_offline_detect_cfg_op (open,inter:60, th:1000)",
                                        "save type node id:63 type:11.", "lib proc msg done.\n"}));
    EXPECT_EQ(
        log_of(201, wire().u32(64).u32(7).u8(1)),
        (std::vector<std::string>{
            "lib proc msg(num:1, len:25).", "scc-type:11, ss-type:201",
            "call _scc_ss_data_recover_op (appid:7, oper:start)", "call ss_data_recover_handler success.",
            "_scc_ss_data_recover_callback send type:402, call_id:64, ret:0", "lib proc msg done.\n"}));
}

TEST_F(HandlerContext, TheLogTellsTheStepsOfAnAnswerForAMissingHandlerInTheirOrder) {
    info = scc_ss_reg_info{};
    start();
    EXPECT_EQ(log_of(132, wire().u32(61).to(940)),
              (std::vector<std::string>{
                  "lib proc msg(num:1, len:956).", "scc-type:11, ss-type:132", "call _scc_ss_ace_op del",
                  "save type node id:61 type:11.", "ss_acl_del_ace_handler is NULL",
                  "_scc_ss_ace_op_ret_callback send scc_type:11, type:402, call_id:61, ret:0, lib op type:3.",
                  "lib proc msg done.\n"}));
    EXPECT_EQ(
        log_of(151, wire().u32(62).u8(0).to(96)),
        (std::vector<std::string>{"lib proc msg(num:1, len:112).", "scc-type:11, ss-type:151",
                                  "save type node id:62 type:11.",
                                  "call _scc_nacm_user_op op:del, user(ifx:0,ip:0.0.0.0,mac:0000.0000.0000)",
                                  "ssc_nacm_user_op_handler is NULL",
                                  "send scc_type:11, type:402, call_id:62, ret:0", "lib proc msg done.\n"}));
}

struct function_row {
    std::uint16_t type;
    std::size_t value_bytes;
    std::set<std::string> functions;  // that write the operation's lines
};

// The log names the operation, not code shared by operations.
TEST_F(HandlerContext, TheLinesOfAnOperationBeginWithTheNamesOfItsOwnFunctions) {
    const function_row rows[] = {
        {131, 140, {"_scc_ss_acl_op", "_scc_ss_acl_op_ret_callback"}},
        {132, 940, {"_scc_ss_ace_op", "_scc_ss_ace_op_ret_callback"}},
        {133, 244, {"_scc_ss_acl_apply_op", "_scc_ss_acl_apply_op_ret_callback"}},
        {138, 28, {"_scc_ss_acl_reseq_op", "_scc_ss_acl_reseq_op_ret_callback"}},
        {140, 36, {"_scc_ss_acl_counter_op", "_scc_ss_acl_counter_op_ret_callback"}},
        {141, 36, {"_scc_ss_ace_counter_op", "_scc_ss_ace_counter_op_ret_callback"}},
        {142, 12, {"_scc_ss_global_eport_op", "_scc_ss_global_eport_ret_callback"}},
        {143, 8, {"_scc_ss_svi_router_acl_op", "_scc_ss_svi_router_acl_op_ret_callback"}},
        {163, 12, {"_scc_ss_cpp_op", "_scc_ss_cpp_ret_callback"}},
        {148, 16, {"_scc_nacm_app_op", "_scc_nacm_callback_send"}},
        {149, 12, {"_scc_nacm_def_read", "_scc_nacm_callback_send"}},
        {150, 20, {"_scc_nacm_l4port_op", "_scc_nacm_callback_send"}},
        {151, 96, {"_scc_nacm_user_op", "_scc_nacm_callback_send"}},
        {152, 96, {"_scc_nacm_user_read"}},
        {153, 12, {"_scc_nacm_user_reinstall_op", "_scc_nacm_callback_send"}},
        {154, 16, {"_scc_nacm_app_user_recover"}},
        {155, 4, {"_scc_nacm_l4port_recover"}},
        {158, 24, {"_scc_nacm_app_withvid_op", "_scc_nacm_callback_send"}},
        {201, 9, {"_scc_ss_data_recover_op", "_scc_ss_data_recover_callback"}},
        {209, 16, {"_scc_offline_detect_cfg_op", "_scc_nacm_callback_send"}},
    };
    info = scc_ss_reg_info{};
    start();
    for (const function_row& row : rows) {
        SCOPED_TRACE(row.type);
        log_of(row.type, bytes(row.value_bytes));
        std::set<std::string> functions;
        for (const test::log_line& line : test::captured_log()) {
            const bool common = line.text.starts_with("lib proc msg") || line.text.starts_with("scc-type:") ||
                                line.text.starts_with("save type node") ||
                                line.text.starts_with("thread msg(");
            if (!common && line.whole.starts_with("<")) {
                functions.insert(line.whole.substr(1, line.whole.find(' ') - 1));
            }
        }
        EXPECT_EQ(functions, row.functions);
    }
}

int reports_a_move(scc_ss_svi_operation* operation) {
    const scc_address_move move{};
    operation->ret = scc_ss_move_addr_notify(1, &move);
    look_around();
    operation->callback(operation, sizeof *operation);
    return 0;
}

// A service must not do this, but it must not hang if it does. The inner call neither waits for its own
// thread nor releases the lock early.
TEST_F(HandlerContext, AHandlerUnderTheLockMayCallTheLibraryAndKeepsTheLock) {
    info.svi_router_acl = reports_a_move;
    start();
    send(143, wire().u32(1).u32(1), 11);
    EXPECT_EQ(daemon.read_item(side::sync).type, 202);
    const auto found = findings().wait();
    ASSERT_TRUE(found.has_value());
    EXPECT_TRUE(found->locked);
    expect_result(11, wire().u32(1).u32(0).u32(143));
    // The lock is free again.
    EXPECT_EQ(scc_ss_fetch_func(), 0U);
    EXPECT_EQ(daemon.read_item(side::sync).type, 204);
}

}  // namespace
