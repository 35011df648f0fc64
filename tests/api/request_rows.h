// One asynchronous request as a row, and the tests that every request passes.
#pragma once

#include <algorithm>
#include <functional>
#include <ostream>

#include "api/recorded_results.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/pending_calls.h"
#include "support/registered_client.h"
#include "support/silence.h"

namespace test {

inline constexpr int counted_nowhere = -1;

struct request_row {
    std::string name;
    std::function<std::uint32_t(std::uint32_t*)> call;  // with the place for the call id
    std::uint16_t type = 0;
    std::uint32_t kind = 0;
    std::size_t position = 0;  // of the handler that gets the result
    bytes payload;             // after the call id
    bytes saved;               // when the call id is 1
    bytes arguments;           // of the handler, after result and call id, when the call id is 1
    int statistics = counted_nowhere;
};

inline std::ostream& operator<<(std::ostream& out, const request_row& row) {
    return out << row.name;
}

inline std::string row_name(const ::testing::TestParamInfo<request_row>& info) {
    return info.param.name;
}

// The five counters of one entry: calls, callback successes, call successes, callback failures, call
// failures.
inline std::vector<std::uint32_t> counters_of(int entry) {
    const scc::call_statistics counted = scc::read_statistics(static_cast<std::uint32_t>(entry));
    return {counted.calls, counted.callback_successes, counted.call_successes, counted.callback_failures,
            counted.call_failures};
}

// Only the row's entry is not zero.
inline void expect_counted(int entry, const std::vector<std::uint32_t>& expected) {
    for (int i = 0; i < 13; ++i) {
        const std::vector<std::uint32_t> nothing(5, 0);
        EXPECT_EQ(counters_of(i), i == entry ? expected : nothing) << "entry " << i;
    }
}

using texts = std::vector<std::string>;

// What is logged meanwhile.
inline texts texts_of(const std::function<void()>& act) {
    const debugging on;
    act();
    return log_texts();
}

class recording_client : public registered_client {
  protected:
    void start(std::uint8_t option = 0) {
        record_all_results(info.handlers);
        registered_client::start(option);
    }

    // Takes out the data that the library saved for the result of a call.
    static void expect_saved(std::uint32_t call_id, std::uint32_t kind, const bytes& expected) {
        scc::pending_call* saved = scc::take_pending_call(call_id);
        ASSERT_NE(saved, nullptr);
        EXPECT_EQ(saved->kind, kind);
        EXPECT_EQ(saved->data_bytes, static_cast<int>(expected.size()));
        EXPECT_EQ(bytes(saved->data(), saved->data() + saved->data_bytes), expected);
        scc::release_pending_call(saved);
    }

    void expect_nothing_was_sent() { test::expect_nothing_was_sent(daemon, side::async); }
};

class every_request : public recording_client, public ::testing::WithParamInterface<request_row> {
  protected:
    void check_payload_and_saved_data() {
        const request_row& row = GetParam();
        start();
        std::uint32_t call_id = 0xAAAAAAAA;
        ASSERT_EQ(row.call(&call_id), 0U);
        EXPECT_EQ(call_id, 1U);
        const received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, row.type);
        EXPECT_EQ(item.sub_id, 0);
        EXPECT_EQ(item.value, bytes(wire().u32(1).add(row.payload)));
        EXPECT_EQ(scc::pending_calls(), 1U);
        expect_saved(1, row.kind, row.saved);
        expect_counted(row.statistics, {1, 0, 1, 0, 0});
    }

    void check_results() {
        const request_row& row = GetParam();
        start();
        std::uint32_t call_id = 0;
        ASSERT_EQ(row.call(&call_id), 0U);
        daemon.read_item(side::async);
        daemon.send_result(1, 2008);
        expect_result(2008, 1, row.arguments);
        EXPECT_EQ(scc::pending_calls(), 0U);
        expect_counted(row.statistics, {1, 0, 1, 1, 0});

        ASSERT_EQ(row.call(&call_id), 0U);
        EXPECT_EQ(call_id, 2U);
        daemon.read_item(side::async);
        daemon.send_result(2, 0);
        const auto second = results().wait();
        ASSERT_TRUE(second.has_value());
        EXPECT_EQ(second->result, 0U);
        EXPECT_EQ(second->call_id, 2U);
        expect_counted(row.statistics, {2, 1, 2, 1, 0});
        EXPECT_EQ(results().size(), 0U);
    }

    void check_null_call_id_out() {
        const request_row& row = GetParam();
        start();
        ASSERT_EQ(row.call(nullptr), 0U);
        const received_item item = daemon.read_item(side::async);
        EXPECT_EQ(item.type, row.type);
        EXPECT_EQ(u32_at(item.value, 0), 1U);
        daemon.send_result(1, 0);
        const auto event = results().wait();
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->position, row.position);
    }

    static void check_not_registered() {
        const request_row& row = GetParam();
        const debugging on;
        std::uint32_t call_id = 0xAAAAAAAA;
        EXPECT_EQ(row.call(&call_id), 2004U);
        EXPECT_EQ(row.call(nullptr), 2004U);
        EXPECT_TRUE(logged("scclib no registered or scc svr no available."));
        EXPECT_EQ(call_id, 0xAAAAAAAA);
        EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
        EXPECT_EQ(scc::pending_calls(), 0U);
        expect_counted(counted_nowhere, {});
    }

  private:
    static void expect_result(std::uint32_t result, std::uint32_t call_id, const bytes& arguments) {
        const auto event = results().wait();
        ASSERT_TRUE(event.has_value());
        EXPECT_EQ(event->position, GetParam().position);
        EXPECT_EQ(event->result, result);
        EXPECT_EQ(event->call_id, call_id);
        EXPECT_EQ(event->arguments, arguments);
    }
};

}  // namespace test

// The four tests of a table of rows.
#define EVERY_REQUEST_OF(suite, rows)                               \
    class suite : public test::every_request {};                    \
    TEST_P(suite, SendsItsBytesOnceAndSavesWhatItsResultNeeds) {    \
        check_payload_and_saved_data();                             \
    }                                                               \
    TEST_P(suite, GivesEachResultToItsHandler) {                    \
        check_results();                                            \
    }                                                               \
    TEST_P(suite, IsSentWithoutAPlaceForTheCallId) {                \
        check_null_call_id_out();                                   \
    }                                                               \
    TEST_P(suite, IsUnavailableAndTakesNoCallIdWhenNotRegistered) { \
        check_not_registered();                                     \
    }                                                               \
    INSTANTIATE_TEST_SUITE_P(Of, suite, ::testing::ValuesIn(rows), test::row_name)
