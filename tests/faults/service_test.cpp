// The service's side and the event loop's start, with each allocation and thread failing in turn.
#include "client/channel_support.h"
#include "ss/service_fixture.h"
#include "support/faults.h"

using test::bytes;
using test::call;
using test::handler_calls;
using test::side;
using test::wire;

namespace {

constexpr int create_slot = 1;

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
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    start();
    expect_working(1);
}

TEST_F(ServiceFaults, TheStartsBatchFailsAndOperationsStillReachTheirHandlers) {
    const test::debugging on;
    test::fail_allocation(1);
    start();
    EXPECT_TRUE(test::end_faults());
    EXPECT_TRUE(test::logged("(app id:16, pid:" + test::own_pid() + ")alloc memory error!"));
    send_create(1);
    (void)called(create_slot);
    send_create(2);
    (void)called(create_slot);
}

TEST_F(ServiceFaults, AThreadThatCannotBeMadeEndsTheStartWithItsError) {
    const test::debugging on;
    daemon.stop_listening();
    const char* const names[] = {" msgq", "", ""};
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
        }
    }
    daemon.listen();
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

struct report_row {
    const char* name;
    std::uint16_t type;
    std::uint32_t (*make)();
    int allocations;
};

TEST_F(ServiceFaults, EachReportUpwardsIs12WithoutMemory) {
    static const scc_address_move moves[2] = {};
    static const scc_flow_user user{};
    static const scc_acl_key key = {1, 2, 3, 4};
    static const scc_ace_counter counters[2] = {};
    const report_row rows[] = {
        {"move", 202, [] { return scc_ss_move_addr_notify(2, moves); }, 2},
        {"offline", 203, [] { return scc_noflow_offline_notify(&user, 1, 2, "abcd", 4); }, 2},
        {"flow", 208, [] { return scc_flow_notify(&user, 1, 2); }, 1},
        {"counters", 207, [] { return scc_ss_ace_counter_notify(&key, 2, counters); }, 2},
        {"fetch", 204, [] { return scc_ss_fetch_func(); }, 1},
    };
    start();
    for (const report_row& row : rows) {
        SCOPED_TRACE(row.name);
        for (int nth = 1; nth <= row.allocations; ++nth) {
            test::fail_allocation(nth);
            EXPECT_EQ(row.make(), 12U);
            EXPECT_TRUE(test::end_faults());
            EXPECT_TRUE(daemon.stays_silent(side::sync, 0));
        }
        test::fail_allocation(row.allocations + 1);
        EXPECT_EQ(row.make(), 0U);
        EXPECT_FALSE(test::end_faults()) << "more allocations than expected";
        EXPECT_EQ(daemon.read_item(side::sync).type, row.type);
    }
    expect_working(1);
}

// The start by an event loop fails before anything is put on the loop.
class LoopStartFaults : public ::testing::Test {
  protected:
    LoopStartFaults() { info.app_id = 7; }
    ~LoopStartFaults() override { test::end_faults(); }

    void expect_failed_start(std::uint32_t error) {
        EXPECT_EQ(scc_agent_init(&info, &no_loop), error);
        EXPECT_TRUE(test::end_faults());
        EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
        EXPECT_EQ(g_scc_client_cb.app_id.load(), 0U);
        EXPECT_EQ(test::library_threads(), 0U);
    }

    scc_reg_info info{};
    int no_loop = 0;
    test::scripted_daemon daemon;
};

TEST_F(LoopStartFaults, AreReturnedAndLeaveNothingBehind) {
    test::fail_allocation(1);
    expect_failed_start(12);
    test::fail_call(call::mkdir, 3, 28);
    expect_failed_start(28);
    test::fail_call(call::pthread_create, 1, 11);
    expect_failed_start(11);
}

}  // namespace
