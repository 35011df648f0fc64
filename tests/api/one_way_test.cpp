// Messages without a call id: nothing is saved, no result is awaited.
#include <climits>

#include "api/request_rows.h"

using test::bytes;
using test::side;
using test::wire;

namespace {

class OneWay : public test::recording_client {
  protected:
    // No call id was used up and nothing waits for a result.
    void expect_no_call() {
        EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
        EXPECT_EQ(scc::pending_calls(), 0U);
    }
};

struct int_case {
    int argument;
    std::uint32_t sent;
};

constexpr int_case int_cases[] = {
    {0, 0}, {1, 1}, {-1, 0xFFFFFFFF}, {INT_MAX, 0x7FFFFFFF}, {INT_MIN, 0x80000000},
};

TEST_F(OneWay, WaterLinesGoToTheSynchronousSocketAndWaitForNoReply) {
    start();
    for (const int_case& row : int_cases) {
        EXPECT_EQ(scc_warterline_notify(row.argument), 0U);
        const test::received_message message = daemon.read(side::sync);
        ASSERT_EQ(message.items.size(), 1U);
        EXPECT_EQ(message.raw, bytes(wire().u32(20).u8(1).u16(1).u8(0).u32(4).u16(0).u16(220).u32(row.sent)));
    }
    expect_no_call();
    expect_nothing_was_sent();
}

TEST_F(OneWay, WaterLinesAreLoggedAsStartOrEndAlsoWhenNotRegistered) {
    const test::debugging on;
    EXPECT_EQ(scc_warterline_notify(1), 2004U);
    EXPECT_EQ(scc_warterline_notify(-5), 2004U);
    EXPECT_EQ(scc_warterline_notify(0), 2004U);
    const std::string unavailable = "scclib no registered or scc svr no available.";
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"notify waterline start.", unavailable, "notify waterline start.",
                                        unavailable, "notify waterline end.", unavailable}));
}

TEST_F(OneWay, TestCommandsGoToTheAsynchronousSocket) {
    start();
    for (const std::uint32_t command : {0U, 1U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(scc_test_cmd_set(command), 0U);
        const test::received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, 205);
        EXPECT_EQ(item.sub_id, 0);
        EXPECT_EQ(item.value, bytes(wire().u32(command)));
    }
    expect_no_call();
}

TEST_F(OneWay, DataRecoveryCarriesTheAppIdAndTheArgumentBetweenZeros) {
    start();
    for (const int_case& row : int_cases) {
        EXPECT_EQ(scc_data_recover(row.argument), 0U);
        const test::received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, 201);
        EXPECT_EQ(item.sub_id, 0);
        EXPECT_EQ(item.value, bytes(wire().u32(0).u32(7).u32(row.sent).u32(0)));
    }
    expect_no_call();
    test::expect_counted(12, {5, 0, 5, 0, 0});
}

TEST_F(OneWay, OnlyDataRecoveryIsCounted) {
    start();
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(scc_test_cmd_set(1), 0U);
    test::expect_counted(test::counted_nowhere, {});
}

TEST_F(OneWay, NothingIsSentOrCountedWhenNotRegistered) {
    const test::debugging on;
    EXPECT_EQ(scc_test_cmd_set(1), 2004U);
    EXPECT_EQ(scc_data_recover(1), 2004U);
    EXPECT_EQ(test::log_texts(),
              std::vector<std::string>(2, "scclib no registered or scc svr no available."));
    test::expect_counted(test::counted_nowhere, {});
}

TEST_F(OneWay, ANoticeThatIsSentLogsNoFailure) {
    start();
    const test::debugging on;
    EXPECT_EQ(scc_warterline_notify(1), 0U);
    EXPECT_EQ(test::logged_failures(), std::vector<std::string>{});
}

}  // namespace
