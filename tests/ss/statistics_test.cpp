// The service's counters: how many operations of each kind were received and answered.
#include <array>

#include "client/diagnostics.h"
#include "ss/callbacks.h"
#include "ss/service.h"
#include "ss/service_fixture.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

constexpr std::size_t pairs = 25;

struct pair_count {
    std::uint32_t received;
    std::uint32_t answered;
    bool operator==(const pair_count&) const = default;
};

void PrintTo(const pair_count& count, std::ostream* out) {
    *out << "rcv " << count.received << " cb " << count.answered;
}

using all_counts = std::array<pair_count, pairs>;

class Statistics : public test::registered_service {
  protected:
    static all_counts counts() {
        all_counts read{};
        for (std::uint32_t pair = 0; pair < pairs; ++pair) {
            const scc::operation_count count = scc::read_count(pair);
            read[pair] = {count.received, count.answered};
        }
        return read;
    }

    // Sends one operation, waits until it is done and counted, and returns what has been added.
    all_counts counted_for(std::uint16_t type, const bytes& value) {
        const test::debugging on;
        const all_counts before = counts();
        send(type, value);
        EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
        all_counts added = counts();
        for (std::size_t pair = 0; pair < pairs; ++pair) {
            added[pair].received -= before[pair].received;
            added[pair].answered -= before[pair].answered;
        }
        return added;
    }

    static all_counts expected(std::size_t pair, pair_count count, std::uint32_t total_answered) {
        all_counts all{};
        all[pair] = count;
        all[0] = {1, total_answered};
        return all;
    }
};

struct kind_row {
    std::uint16_t type;
    std::size_t least_bytes;
    std::size_t pair;
    pair_count missing;               // without a handler
    std::uint32_t total_for_missing;  // answers counted in the total
    pair_count silent;                // with a handler that answers nothing
    std::uint32_t total_for_silent;
};

constexpr kind_row kinds[] = {
    {131, 140, 3, {1, 1}, 1, {1, 0}, 0},
    {132, 940, 4, {1, 1}, 1, {1, 0}, 0},
    {133, 244, 5, {1, 1}, 1, {1, 0}, 0},
    {138, 28, 6, {1, 1}, 1, {1, 0}, 0},
    {143, 8, 7, {1, 1}, 1, {1, 0}, 0},
    {140, 36, 8, {1, 1}, 1, {1, 0}, 0},
    {312, 36, 8, {1, 1}, 1, {1, 0}, 0},
    {141, 36, 9, {1, 1}, 1, {1, 0}, 0},
    {313, 36, 9, {1, 1}, 1, {1, 0}, 0},
    {142, 12, 12, {1, 1}, 1, {1, 0}, 0},
    {163, 12, 13, {1, 1}, 1, {1, 0}, 0},
    {209, 16, 14, {1, 1}, 1, {1, 0}, 0},
    // The answers in place of these handlers are not counted.
    {148, 16, 15, {1, 0}, 0, {1, 0}, 0},
    {149, 12, 16, {1, 0}, 0, {1, 0}, 0},
    {150, 20, 17, {1, 0}, 0, {1, 0}, 0},
    {151, 96, 18, {1, 0}, 0, {1, 0}, 0},
    {153, 12, 20, {1, 0}, 0, {1, 0}, 0},
    {158, 24, 23, {1, 0}, 0, {1, 0}, 0},
    // Always answered by the library itself.
    {152, 96, 19, {1, 1}, 1, {1, 1}, 1},
    {201, 9, 1, {1, 1}, 1, {1, 1}, 1},
    // Never answered: both are counted on receipt, the total is not.
    {154, 40, 21, {1, 1}, 0, {1, 1}, 0},
    {155, 28, 22, {1, 1}, 0, {1, 1}, 0},
    {205, 4, 24, {1, 1}, 0, {1, 1}, 0},
    {206, 36, 2, {1, 1}, 0, {1, 1}, 0},
    {213, 520, 10, {1, 1}, 0, {1, 1}, 0},
    {214, 8, 11, {1, 1}, 0, {1, 1}, 0},
};

TEST_F(Statistics, EachKindIsCountedInItsPairWithoutHandlers) {
    start();
    for (const kind_row& row : kinds) {
        EXPECT_EQ(counted_for(row.type, bytes(row.least_bytes)),
                  expected(row.pair, row.missing, row.total_for_missing))
            << row.type;
    }
}

TEST_F(Statistics, EachKindIsCountedInItsPairWithHandlersThatDoNotAnswer) {
    start_with_all_handlers();
    for (const kind_row& row : kinds) {
        EXPECT_EQ(counted_for(row.type, bytes(row.least_bytes)),
                  expected(row.pair, row.silent, row.total_for_silent))
            << row.type;
    }
}

TEST_F(Statistics, AHandlersFailureChangesNothingInTheCounts) {
    start_with_all_handlers();
    test::script().returns = 5;
    for (const kind_row& row : kinds) {
        EXPECT_EQ(counted_for(row.type, bytes(row.least_bytes)),
                  expected(row.pair, row.silent, row.total_for_silent))
            << row.type;
    }
}

TEST_F(Statistics, AnAnswerFromInsideTheHandlerIsCounted) {
    start_with_all_handlers();
    test::script().answers = 1;
    for (const kind_row& row : kinds) {
        const bool takes_a_record = row.type <= 143 || row.type == 163 || row.type == 312 || row.type == 313;
        if (takes_a_record) {
            EXPECT_EQ(counted_for(row.type, bytes(row.least_bytes)), expected(row.pair, {1, 1}, 1))
                << row.type;
        }
    }
}

TEST_F(Statistics, ACollectionCountsOnlyInTheTotal) {
    start();
    all_counts only_total{};
    only_total[0] = {1, 1};
    EXPECT_EQ(counted_for(318, {}), only_total);
}

TEST_F(Statistics, UnknownTypesAndShortValuesCountOnlyAsReceivedInTheTotal) {
    start_with_all_handlers();
    all_counts only_total{};
    only_total[0] = {1, 0};
    EXPECT_EQ(counted_for(999, bytes(100)), only_total);
    EXPECT_EQ(counted_for(319, bytes(100)), only_total);
    EXPECT_EQ(counted_for(131, bytes(139)), only_total);
}

TEST_F(Statistics, ADroppedApplicationTypeIsCountedAsReceived) {
    start_with_all_handlers();
    EXPECT_EQ(counted_for(148, wire().u32(1).u32(1).u32(1).u32(39)), expected(15, {1, 0}, 0));
    EXPECT_EQ(counted_for(158, wire().u32(1).u32(1).u32(1).u32(39).zeros(8)), expected(23, {1, 0}, 0));
}

TEST_F(Statistics, TheTotalGoesUpByTheItemsOfAMessage) {
    start_with_all_handlers();
    const test::debugging on;
    daemon.send_items(side::async,
                      {test::item_bytes(143, wire().u32(1).u32(1)), test::item_bytes(999, bytes(1)),
                       test::item_bytes(143, wire().u32(2).u32(1))});
    EXPECT_TRUE(test::wait_for_log("lib proc msg done.\n"));
    EXPECT_EQ(counts()[0], (pair_count{3, 0}));
    EXPECT_EQ(counts()[7], (pair_count{2, 0}));
}

TEST_F(Statistics, EveryResultFunctionRaisesItsPairAndTheTotal) {
    start();
    const scc_ss_counter_operation counter{};
    const auto raised = [](std::size_t pair) {
        const all_counts now = counts();
        for (std::size_t other = 1; other < pairs; ++other) {
            EXPECT_EQ(now[other].answered, other == pair ? 1U : 0U) << other;
        }
        EXPECT_EQ(now[0].answered, 1U);
        scc::reset_service_statistics();
    };
    // A counter record is as long as the longest of the heads that these read.
    _scc_ss_acl_op_ret_callback(&counter, 0);
    raised(3);
    _scc_ss_ace_op_ret_callback(&counter, 0);
    raised(4);
    _scc_ss_acl_apply_op_ret_callback(&counter, 0);
    raised(5);
    _scc_ss_acl_reseq_op_ret_callback(&counter, 0);
    raised(6);
    _scc_ss_svi_router_acl_op_ret_callback(&counter, 0);
    raised(7);
    _scc_ss_acl_counter_op_ret_callback(&counter, 0);
    raised(8);
    _scc_ss_ace_counter_op_ret_callback(&counter, 0);
    raised(9);
    _scc_ss_global_eport_ret_callback(&counter, 0);
    raised(12);
    _scc_ss_cpp_ret_callback(&counter, 0);
    raised(13);
    _scc_ss_data_recover_callback(0, 1);
    raised(1);
    EXPECT_EQ(scc_offline_detect_cfg_ret_callback(0, 1, 0, 0, 0), 0U);
    raised(14);
    EXPECT_EQ(scc_ssc_nacm_app_op_callback(0, 1, 0, 0, 0), 0U);
    raised(15);
    EXPECT_EQ(scc_ssc_nacm_def_read_callback(0, 1, 0, 0), 0U);
    raised(16);
    EXPECT_EQ(scc_ssc_nacm_http_l4port_set_callback(0, 1, 0, 0), 0U);
    raised(17);
    EXPECT_EQ(scc_ssc_nacm_user_op_callback(0, 1, 0, nullptr), 0U);
    raised(18);
    EXPECT_EQ(scc_ssc_nacm_user_reinstall_callback(0, 1, 0, 0), 0U);
    raised(20);
    EXPECT_EQ(scc_ssc_nacm_app_op_with_vid_callback(0, 1, 0, 0, 0, 0), 0U);
    raised(23);
}

TEST_F(Statistics, TheSendOfAScalarAnswerAloneCountsNothing) {
    start();
    EXPECT_EQ(_scc_nacm_callback_send(0, 1, 149), 0U);
    EXPECT_EQ(counts(), all_counts{});
}

TEST_F(Statistics, AreResetByAReconnectionTogetherWithTheCallStatistics) {
    start_with_all_handlers();
    send(131, wire().u32(1).zeros(136));
    called(2);
    expect_nothing_more();
    EXPECT_NE(counts(), all_counts{});
    EXPECT_EQ(scc::read_statistics(1).calls, 1U);
    daemon.close_both();
    EXPECT_EQ(test::service_statuses().wait(), 0U);
    daemon.accept_registration();
    EXPECT_EQ(test::service_statuses().wait(), 1U);
    EXPECT_EQ(counts(), all_counts{});
    EXPECT_EQ(scc::read_statistics(1).calls, 0U);
}

TEST_F(Statistics, AreZeroAndUncountedBeforeAServiceHasRegistered) {
    EXPECT_EQ(counts(), all_counts{});
    EXPECT_EQ(ss_stat, nullptr);
    const bytes item = test::item_bytes(205, wire().u32(1));
    _scc_ss_async_msg_proc(1, item.data());
    EXPECT_EQ(counts(), all_counts{});
    start();
    EXPECT_NE(ss_stat, nullptr);
    EXPECT_EQ(counts(), all_counts{});
}

}  // namespace
