// The service's side, with each allocation and thread failing in turn.
#include "ss/service.h"

#include <cstring>

#include "client/channel_support.h"
#include "client/diagnostics.h"
#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/operations.h"
#include "ss/service_fixture.h"
#include "support/faults.h"

using test::bytes;
using test::call;
using test::handler_calls;
using test::side;
using test::wire;

namespace {

constexpr int create_slot = 1;
constexpr int batch_block_bytes = 8224;

class ServiceFaults : public test::registered_service {
  protected:
    ServiceFaults() {
        info = test::all_handlers();
        test::script().answers = 1;
    }
    ~ServiceFaults() override { test::end_faults(); }

    // An ACL is to be created, under this call id.
    void send_create(std::uint32_t call_id) {
        send(131, test::with_u32(test::with_u32(bytes(140), 0, call_id), 136, 1), 0x0102);
    }

    // The operation reaches its handler, and its answer the daemon.
    void expect_working(std::uint32_t call_id, std::uint16_t scc_type = 0x0102) {
        send_create(call_id);
        expect_answered(call_id, scc_type);
    }

    void expect_answered(std::uint32_t call_id, std::uint16_t scc_type) {
        (void)called(create_slot);
        expect_result(scc_type, wire().u32(call_id).u32(0).u32(131));
    }
};

TEST_F(ServiceFaults, TheStartsStatisticsFailAndTheNextStartWorks) {
    test::fail_allocation(2);
    EXPECT_EQ(scc_ss_reg(&info), 12U);
    EXPECT_TRUE(test::end_faults());
    // The start is left incomplete: the identity and the handlers stay.
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 16U);
    EXPECT_EQ(g_scc_ss_cb.acl_create, info.acl_create);
    EXPECT_EQ(g_scc_ss_cb.offline_detect_cfg, info.offline_detect_cfg);
    EXPECT_EQ(g_scc_client_cb.handlers.authmode, info.authmode);
    EXPECT_EQ(test::library_threads(), 0U);
    start();
    expect_working(1);
}

TEST_F(ServiceFaults, TheStartsBatchFailsAndOperationsStillReachTheirHandlers) {
    const test::debugging on;
    test::fail_allocations_of(batch_block_bytes);
    start();
    EXPECT_TRUE(test::logged("(app id:16, pid:" + test::own_pid() + ")alloc memory error!"));
    send_create(1);
    (void)called(create_slot);
    EXPECT_TRUE(test::wait_for_log("call _scc_lib_msg_send failed. errno:12."));
    // The next answer finds memory for the batch.
    EXPECT_TRUE(test::end_faults());
    expect_working(2);
}

TEST_F(ServiceFaults, AThreadThatCannotBeMadeEndsTheStartWithItsError) {
    const test::debugging on;
    daemon.stop_listening();
    const char* const names[] = {" msgq", "", ""};
    const scc::service_handlers no_handlers{};
    std::thread([] {}).join();  // a sanitizer creates its own thread with the first one
    const std::size_t threads_before = test::thread_count();
    for (int nth = 1; nth <= 3; ++nth) {
        for (const int error : {1, 11, 12, 22}) {
            test::clear_log();
            test::fail_call(call::pthread_create, nth, error);
            EXPECT_EQ(scc_ss_reg(&info), static_cast<std::uint32_t>(error));
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(test::logged("(app id:16, pid:" + test::own_pid() + ")create scclib" +
                                     names[nth - 1] + " thread error!"));
            EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
            EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
            EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
            EXPECT_EQ(std::memcmp(&g_scc_ss_cb, &no_handlers, sizeof no_handlers), 0);
            // The processing thread stays. A receive thread must have ended before the next start, or it
            // might connect for that.
            const std::size_t staying = threads_before + (nth == 1 ? 0 : 1);
            EXPECT_TRUE(test::eventually([&] { return test::thread_count() == staying; }));
        }
    }
    daemon.listen();
    start();
    expect_working(1);
}

// The last thread of a start cannot be created, and by then its receive thread has connected both sockets.
void fail_once_connected() {
    EXPECT_TRUE(test::eventually([] { return g_scc_client_cb.state == 3U; }));
    test::fail_call(call::pthread_create, 1, 11);
}

TEST_F(ServiceFaults, AThreadThatCannotBeMadeAfterTheSocketsConnectedClosesThem) {
    const test::debugging on;
    test::on_call(call::pthread_create, [] {
        test::on_call(call::pthread_create, [] { test::on_call(call::pthread_create, fail_once_connected); });
    });
    EXPECT_EQ(scc_ss_reg(&info), 11U);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("(app id:16, pid:" + test::own_pid() + ")create scclib thread error!"));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
    EXPECT_EQ(g_scc_client_cb.handlers.server_status, nullptr);
    const scc::service_handlers no_handlers{};
    EXPECT_EQ(std::memcmp(&g_scc_ss_cb, &no_handlers, sizeof no_handlers), 0);
    for (const char* const name : {"/.sccl_sd1_", "/.sccl_sd2_"}) {
        EXPECT_FALSE(std::filesystem::exists(daemon.directory().runtime() + name + test::own_pid()));
    }
    daemon.accept_both();
    EXPECT_TRUE(daemon.wait_for_close(side::sync));
    EXPECT_TRUE(daemon.wait_for_close(side::async));
    EXPECT_EQ(test::service_statuses().size(), 0U);
    start();
    expect_working(1);
}

TEST_F(ServiceFaults, AMessageWithoutMemoryIsDroppedAndTheNextIsProcessed) {
    start();
    const test::debugging on;
    test::fail_call(call::malloc, 1, 12);
    send_create(1);
    EXPECT_TRUE(test::wait_for_log("alloc memory failed."));
    EXPECT_TRUE(test::end_faults());
    test::fail_call(call::malloc, 2, 12);
    send_create(2);
    EXPECT_TRUE(test::wait_for_log("malloc data buffer error. ignore this proc msg."));
    EXPECT_TRUE(test::end_faults());
    expect_working(3);
    EXPECT_EQ(handler_calls().size(), 0U);
}

TEST_F(ServiceFaults, AnOperationWhoseTypeCannotBeKeptIsAnsweredWithTypeZero) {
    start();
    const test::debugging on;
    // Message and queue entry come first, then the map's node and its type.
    const char* const texts[] = {"save idtype node id:5 type:258 map failed.",
                                 "save type node id:5 type:258 map failed."};
    for (const int nth : {3, 4}) {
        test::fail_call(call::malloc, nth, 12);
        send_create(5);
        EXPECT_TRUE(test::wait_for_log(texts[nth - 3]));
        expect_answered(5, 0);
        EXPECT_TRUE(test::end_faults());
    }
    expect_working(5);
}

// The first request's type is there already, so the id keeps its place.
TEST_F(ServiceFaults, ASecondTypeThatCannotBeKeptLeavesTheFirst) {
    test::script().answers = 0;
    start();
    send_create(5);
    (void)called(create_slot);
    const test::debugging on;
    // Message, queue entry, type.
    test::fail_call(call::malloc, 3, 12);
    send_create(5);
    EXPECT_TRUE(test::wait_for_log("save type node id:5 type:258 map failed."));
    EXPECT_TRUE(test::end_faults());
    EXPECT_EQ(_scc_ss_get_type(5), 258);
    EXPECT_EQ(_scc_ss_get_type(5), 0);
}

struct send_failure_row {
    const char* log_head;
    void (*callback)(const void*, std::uint32_t);
    const char* sender;
};

// Without memory for the batch an asynchronous answer fails with 12.
TEST_F(ServiceFaults, AnAnswerThatCannotBeSentIsLoggedCountedAndNotRepeated) {
    const send_failure_row rows[] = {
        {"acl", _scc_ss_acl_op_ret_callback, "_scc_lib_msg_send"},
        {"ace", _scc_ss_ace_op_ret_callback, "_scc_lib_msg_send"},
        {"apply", _scc_ss_acl_apply_op_ret_callback, "_scc_lib_msg_send"},
        {"reseq", _scc_ss_acl_reseq_op_ret_callback, "_scc_lib_msg_send"},
        {"svi", _scc_ss_svi_router_acl_op_ret_callback, "_scc_lib_msg_send"},
        {"global eport", _scc_ss_global_eport_ret_callback, "_scc_lib_ss_msg_send"},
        {"cpp", _scc_ss_cpp_ret_callback, "_scc_lib_ss_msg_send"},
        {"acl counter", _scc_ss_acl_counter_op_ret_callback, "_scc_lib_msg_send"},
        {"ace counter", _scc_ss_ace_counter_op_ret_callback, "_scc_lib_ss_msg_send"},
    };
    test::fail_allocations_of(batch_block_bytes);
    start();
    for (const send_failure_row& row : rows) {
        SCOPED_TRACE(row.log_head);
        const test::debugging on;
        _scc_ss_save_idtype(7, 21);
        scc_ss_counter_operation record{};
        record.id = 7;
        record.op = 3;
        row.callback(&record, sizeof record);
        EXPECT_TRUE(test::logged(std::string("call ") + row.sender + " failed. errno:12."));
        EXPECT_EQ(_scc_ss_get_type(7), 0);
    }
    EXPECT_EQ(scc::read_count(0).answered, 9U);
    EXPECT_EQ(scc::read_statistics(3).callback_successes, 1U);
    const test::debugging on;
    _scc_ss_data_recover_callback(0, 7);
    EXPECT_TRUE(test::logged("call _scc_lib_msg_send failed. errno:12."));
    test::clear_log();
    send(152, wire().zeros(96));
    EXPECT_TRUE(test::wait_for_log("call _scc_lib_msg_send failed. errno:12."));
    EXPECT_TRUE(test::end_faults());
    constexpr int user_read_slot = 19;
    (void)called(user_read_slot);
    expect_working(8);
}

TEST_F(ServiceFaults, AReplyThatCannotBeSentReturnsTheErrorAndAUserOperationCountsAFailure) {
    test::fail_allocations_of(batch_block_bytes);
    start();
    const test::debugging on;
    EXPECT_EQ(scc_ssc_nacm_app_op_callback(0, 1, 0, 0, 5), 12U);
    EXPECT_EQ(scc_ssc_nacm_app_op_with_vid_callback(0, 1, 0, 0, 0, 5), 12U);
    EXPECT_EQ(scc_ssc_nacm_def_read_callback(0, 1, 0, 0), 12U);
    EXPECT_EQ(scc_ssc_nacm_http_l4port_set_callback(0, 1, 0, 0), 12U);
    EXPECT_EQ(scc_ssc_nacm_user_reinstall_callback(0, 1, 0, 0), 12U);
    EXPECT_EQ(scc_offline_detect_cfg_ret_callback(0, 1, 0, 0, 0), 12U);
    EXPECT_TRUE(test::logged("call _scc_lib_ss_msg_send failed. errno:12."));
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(0, 1, 1, nullptr), 12U);
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(5, 1, 0, nullptr), 12U);
    for (const std::uint32_t code : {6U, 7U}) {
        EXPECT_EQ(scc::read_statistics(code).callback_failures, 1U);
        EXPECT_EQ(scc::read_statistics(code).callback_successes, 0U);
    }
    EXPECT_EQ(scc::read_count(0).answered, 8U);
    EXPECT_TRUE(test::end_faults());
}

TEST_F(ServiceFaults, AQueriesAnswerWithoutMemoryIsLoggedToo) {
    start();
    scc_ss_counter_operation record{};
    record.sync = 1;
    const test::debugging on;
    test::fail_allocation(1);
    _scc_ss_acl_counter_op_ret_callback(&record, sizeof record);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("call _scc_lib_msg_send failed. errno:12."));
    test::fail_allocation(1);
    _scc_ss_ace_counter_op_ret_callback(&record, sizeof record);
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("call _scc_lib_ss_msg_send failed. errno:12."));
    test::expect_nothing_was_sent(daemon, side::sync);
    test::expect_nothing_was_sent(daemon, side::async);
}

struct report_row {
    const char* name;
    std::uint16_t type;
    std::uint32_t (*make)();
    int allocations;
    std::uint32_t counted_under;  // 13 for none
};

TEST_F(ServiceFaults, EachReportUpwardsIs12WithoutMemory) {
    static const scc_address_move moves[2] = {};
    static const scc_flow_user user{};
    static const scc_acl_key key = {1, 2, 3, 4};
    static const scc_ace_counter counters[2] = {};
    const report_row rows[] = {
        {"move", 202, [] { return scc_ss_move_addr_notify(2, moves); }, 2, 11},
        {"offline", 203, [] { return scc_noflow_offline_notify(&user, 1, 2, "abcd", 4); }, 2, 10},
        {"flow", 208, [] { return scc_flow_notify(&user, 1, 2); }, 1, 13},
        {"counters", 207, [] { return scc_ss_ace_counter_notify(&key, 2, counters); }, 2, 13},
        {"fetch", 204, [] { return scc_ss_fetch_func(); }, 1, 13},
    };
    start();
    for (const report_row& row : rows) {
        SCOPED_TRACE(row.name);
        _scc_lib_func_stat_reset();
        for (int nth = 1; nth <= row.allocations; ++nth) {
            const test::debugging on;
            test::fail_allocation(nth);
            EXPECT_EQ(row.make(), 12U);
            EXPECT_TRUE(test::end_faults());
            test::expect_nothing_was_sent(daemon, side::sync);
            // The last allocation is the send's own.
            EXPECT_TRUE(test::logged(nth == row.allocations ? "call _scc_lib_msg_send failed. rv:12."
                                                            : "scclib malloc addr notify msg failed."));
        }
        // A report whose message could not be built is not counted as a call.
        for (std::uint32_t code = 0; code <= 12; ++code) {
            const scc::call_statistics counted = scc::read_statistics(code);
            EXPECT_EQ(counted.call_failures, code == row.counted_under ? 1U : 0U) << code;
            EXPECT_EQ(counted.calls, code == row.counted_under ? 1U : 0U) << code;
        }
        test::fail_allocation(row.allocations + 1);
        EXPECT_EQ(row.make(), 0U);
        EXPECT_FALSE(test::end_faults()) << "more allocations than expected";
        EXPECT_EQ(daemon.read_item(side::sync).type, row.type);
    }
    expect_working(1);
}

TEST_F(ServiceFaults, AUserReadThatCannotBeAnsweredReturnsTheError) {
    test::fail_allocations_of(batch_block_bytes);
    start();
    const bytes value = wire().zeros(96);
    EXPECT_EQ(_scc_nacm_user_read(0, value.data()), 12);
    EXPECT_TRUE(test::end_faults());
}

// The longest report is one whose message has the greatest length that an int holds.
TEST_F(ServiceFaults, OnlyAReportThatIsTooLongIsRefusedWithoutAnAllocation) {
    start();
    const scc_flow_user user{};
    constexpr int longest = 0x7FFFFFFF - 16;
    for (const bool fits : {true, false}) {
        const int bytes_of_report = longest + (fits ? 0 : 1);
        test::fail_allocations_of(bytes_of_report);
        EXPECT_EQ(scc_noflow_offline_notify(&user, 1, 2, "x", bytes_of_report - 88), 12U);
        EXPECT_EQ(test::end_faults(), fits);
    }
    test::expect_nothing_was_sent(daemon, side::sync);
}

}  // namespace
