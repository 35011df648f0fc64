// While the debug switch is off, no failed allocation or system call writes a log line.
#include <array>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "fault_support.h"
#include "ss/callbacks.h"
#include "ss/id_map.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::call;
using test::side;
using test::wire;

namespace {

constexpr int batch_block_bytes = 8224;
constexpr scc_acl_key acl = {1, 2, 3, 4};

void expect_an_empty_log() {
    EXPECT_EQ(test::log_texts(), std::vector<std::string>{});
}

class Silence : public test::fault_test {
  protected:
    // Makes the next allocation fail.
    template <class Act>
    static void without_memory(const Act& act) {
        test::fail_allocation(1);
        act();
        EXPECT_TRUE(test::end_faults());
    }

    // The fault must occur on another thread.
    static void expect_met(call which) {
        EXPECT_TRUE(test::eventually([which] { return test::calls(which) >= 2; }));
        EXPECT_TRUE(test::end_faults());
    }
};

TEST_F(Silence, OfCallsWithoutMemory) {
    start(1);
    test::clear_log();
    _scc_lib_acl_add(&acl);
    scc_ace_record ace{};
    _scc_lib_ace_add(&acl, &ace);
    scc_list_head aces{};
    const scc_acl_key other = {1, 2, 4, 4};
    without_memory([&] { _scc_lib_acl_add(&other); });
    without_memory([&] { _scc_lib_ace_add(&acl, &ace); });
    without_memory([&] { EXPECT_EQ(scc_acl_get_ace(&acl, &aces), 12U); });
    without_memory([] { EXPECT_EQ(scc_warterline_notify(1), 12U); });
    without_memory([] { EXPECT_EQ(scc_svi_router_acl_set(1, nullptr), 12U); });
    expect_an_empty_log();
    expect_working();
}

TEST_F(Silence, OfAMessageWithoutMemoryAndOfAReportThatCannotBeSent) {
    start(0);
    test::clear_log();
    test::fail_call(call::malloc, 1, 12);
    daemon.send_item(side::async, 999, bytes(20));
    EXPECT_TRUE(test::eventually([] { return test::calls(call::malloc) >= 1; }));
    expect_working();
    EXPECT_TRUE(test::end_faults());
    test::fail_calls_from(call::calloc, 1, 12);
    daemon.send_item(side::async, 318, {});
    EXPECT_TRUE(test::eventually([] { return test::calls(call::calloc) >= 2; }));
    EXPECT_TRUE(test::end_faults());
    expect_working();
    expect_an_empty_log();
}

TEST_F(Silence, OfTheCheckersWaitThatFails) {
    start(0);
    test::clear_log();
    test::fail_call(call::select, 1, 4);
    expect_met(call::select);
    expect_working();
    expect_an_empty_log();
}

// 20 retries of 200 ms.
TEST_F(Silence, OfAFlushThatIsGivenUp) {
    g_send_buf_chk_enabled = 1;
    start(0);
    test::clear_log();
    const std::uint8_t value = 5;
    ASSERT_EQ(_scc_lib_msg_send_bt(0, 903, &value, 1, 0), 0U);
    test::fail_calls_from(call::send, 1, 11);
    scc::flush_waiting_batch();
    EXPECT_EQ(test::calls(call::send), 21);
    EXPECT_TRUE(test::end_faults());
    expect_an_empty_log();
    EXPECT_EQ(test::statuses().size(), 0U);
}

class ServiceSilence : public test::registered_service {
  protected:
    ServiceSilence() {
        info = test::all_handlers();
        test::script().answers = 1;
    }
    ~ServiceSilence() override { test::end_faults(); }
};

TEST_F(ServiceSilence, OfAnswersWithoutMemory) {
    test::fail_allocations_of(batch_block_bytes);
    start();
    test::clear_log();
    scc_ss_counter_operation record{};
    record.id = 7;
    _scc_ss_acl_op_ret_callback(&record, sizeof record);
    _scc_ss_acl_counter_op_ret_callback(&record, sizeof record);
    _scc_ss_ace_counter_op_ret_callback(&record, sizeof record);
    _scc_ss_data_recover_callback(0, 7);
    EXPECT_EQ(scc_ssc_nacm_app_op_callback(0, 1, 0, 0, 5), 12U);
    constexpr int user_read_slot = 19;
    send(152, wire().zeros(96));
    (void)called(user_read_slot);
    EXPECT_TRUE(test::others_are_waiting());
    EXPECT_TRUE(test::end_faults());
    expect_nothing_more();
    expect_an_empty_log();
}

TEST_F(ServiceSilence, OfOperationsWithoutMemory) {
    start();
    test::clear_log();
    // A message, its entry in the queue, the map's node and the type.
    for (const int nth : {1, 2, 3, 4}) {
        test::fail_call(call::malloc, nth, 12);
        send(131, test::with_u32(test::with_u32(bytes(140), 0, 5), 136, 1));
        EXPECT_TRUE(test::eventually([nth] { return test::calls(call::malloc) >= nth; }));
        if (nth >= 3) {
            (void)called(1);
            expect_result(0, wire().u32(5).u32(0).u32(131));
        }
        EXPECT_TRUE(test::others_are_waiting());
        EXPECT_TRUE(test::end_faults());
    }
    expect_an_empty_log();
}

TEST_F(ServiceSilence, OfReportsWithoutMemory) {
    static const scc_address_move moves[2] = {};
    static const scc_flow_user user{};
    const std::array<std::uint32_t (*)(), 3> reports = {
        [] { return scc_ss_move_addr_notify(2, moves); },
        [] { return scc_flow_notify(&user, 1, 2); },
        [] { return scc_ss_fetch_func(); },
    };
    start();
    test::clear_log();
    for (const auto& report : reports) {
        test::fail_allocation(1);
        EXPECT_EQ(report(), 12U);
        EXPECT_TRUE(test::end_faults());
    }
    test::fail_allocation(2);
    EXPECT_EQ(reports[0](), 12U);
    EXPECT_TRUE(test::end_faults());
    expect_an_empty_log();
}

}  // namespace
