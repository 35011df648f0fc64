// One synchronous query as a row, and the tests that every query passes. The query runs on a thread of its
// own while the test answers it as the daemon.
#pragma once

#include <functional>
#include <future>
#include <ostream>

#include "client/control_block.h"
#include "client/pending_calls.h"
#include "support/aside.h"
#include "support/registered_client.h"

namespace test {

struct query_row {
    std::string name;
    // Gets the caller's memory before the call, and changes it as the call does.
    std::function<std::uint32_t(bytes& memory)> call;
    bytes memory;  // before the call
    std::uint16_t request = 0;
    bytes payload;  // of the first query after registration
    std::uint16_t reply = 0;
    std::string reply_name;
    bytes good;    // the shortest good reply
    bytes answer;  // the memory after it
    // The shortest reply that fails with 2005; empty when a reply carries no result.
    bytes failed;
    bytes memory_after_error;
    bytes memory_after_failure;
};

// A second answer, unlike the good one: a failure, or nothing but zeros where a reply carries no result.
inline bytes other_answer(const query_row& row) {
    return row.failed.empty() ? bytes(row.good.size(), 0) : row.failed;
}

inline std::ostream& operator<<(std::ostream& out, const query_row& row) {
    return out << row.name;
}

inline std::string query_name(const ::testing::TestParamInfo<query_row>& info) {
    return info.param.name;
}

class querying_client : public registered_client {
  protected:
    void TearDown() override { EXPECT_EQ(scc::pending_calls(), 0U); }

    struct outcome {
        std::uint32_t code;
        bytes memory;

        bool operator==(const outcome&) const = default;
        friend std::ostream& operator<<(std::ostream& out, const outcome& seen) {
            return out << "code " << seen.code << ", memory " << ::testing::PrintToString(seen.memory);
        }
    };

    static outcome outcome_of(const query_row& row) {
        outcome out{0, row.memory};
        out.code = row.call(out.memory);
        return out;
    }

    static std::future<outcome> begin(const query_row& row) {
        return std::async(std::launch::async, [row] { return outcome_of(row); });
    }

    // Reads the query as the daemon and answers it with a whole message.
    outcome exchange(const query_row& row, const bytes& message) {
        std::future<outcome> running = begin(row);
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request);
        daemon.send(side::sync, message);
        return running.get();
    }

    outcome exchange_item(const query_row& row, std::uint16_t type, const bytes& value) {
        return exchange(row, message_bytes({item_bytes(type, value)}));
    }

    // Waits for the call; one that does not return fails the test and is released.
    outcome finished(aside<outcome>& running) {
        if (!running.returns()) {
            ADD_FAILURE() << "the call does not return";
            daemon.stop_listening();
            daemon.close_both();
        }
        return running.get();
    }

    // The query once the daemon has read it and sent these bytes.
    outcome outcome_after(const query_row& row, const bytes& sent) {
        aside<outcome> running([row] { return outcome_of(row); });
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request);
        daemon.send(side::sync, sent);
        return finished(running);
    }

    // A signal ends the query after these bytes have arrived.
    void expect_interrupted(const query_row& row, const bytes& sent) {
        handle_interruptions();
        aside<outcome> running([row] { return outcome_of(row); });
        EXPECT_EQ(daemon.read_item(side::sync).type, row.request);
        daemon.send(side::sync, sent);
        ASSERT_TRUE(all_taken(daemon.fd(side::sync)));
        ASSERT_TRUE(running.waits_in(waiting_for_bytes));
        running.interrupt();
        EXPECT_EQ(finished(running), (outcome{4, row.memory_after_error}));
    }

    // The query is interrupted after that many bytes of its reply; the rest comes once the next query has
    // been sent. That one and the one after it get their own answers.
    void expect_own_answers_after_interruption(const query_row& row, std::size_t length) {
        const bytes other = message_bytes({item_bytes(row.reply, other_answer(row))});
        const bytes good = message_bytes({item_bytes(row.reply, row.good)});
        const outcome other_outcome = row.failed.empty() ? outcome{0, bytes(row.memory.size(), 0)}
                                                         : outcome{2005, row.memory_after_failure};
        ASSERT_LT(length, other.size());
        ASSERT_NO_FATAL_FAILURE(expect_interrupted(row, slice(other, 0, length)));
        EXPECT_EQ(outcome_after(row, wire().add(slice(other, length, other.size() - length)).add(good)),
                  (outcome{0, row.answer}));
        if (!HasFailure()) {
            EXPECT_EQ(outcome_after(row, other), other_outcome);
        }
    }

    void expect_a_good_query(const query_row& row) {
        const outcome out = exchange_item(row, row.reply, row.good);
        EXPECT_EQ(out.code, 0U);
        EXPECT_EQ(out.memory, row.answer);
    }
};

class every_query : public querying_client, public ::testing::WithParamInterface<query_row> {
  protected:
    void check_request_and_answer() {
        const query_row& row = GetParam();
        start(0);
        std::future<outcome> running = begin(row);
        const received_message request = daemon.read(side::sync);
        ASSERT_EQ(request.items.size(), 1U);
        EXPECT_EQ(request.raw, message_bytes({item_bytes(row.request, row.payload)}));
        EXPECT_EQ(scc::pending_calls(), 0U);
        daemon.send_item(side::sync, row.reply, row.good);
        const outcome out = running.get();
        EXPECT_EQ(out.code, 0U);
        EXPECT_EQ(out.memory, row.answer);
        // Bytes after the fields of a longer reply are ignored.
        const outcome longer = exchange_item(row, row.reply, wire().add(row.good).fill(300, 0xEE));
        EXPECT_EQ(longer.code, 0U);
        EXPECT_EQ(longer.memory, row.answer);
    }

    void check_wrong_types() {
        const query_row& row = GetParam();
        const debugging on;
        start(0);
        // The types of other queries' replies, the query's own type, and the neighbours of the right one.
        const auto above = static_cast<std::uint16_t>(row.reply + 1);
        const auto below = static_cast<std::uint16_t>(row.reply - 1);
        const std::vector<std::uint16_t> types = {0,     1,     136, 401, 402, 405,   407,
                                                  408,   409,   410, 411, 413, 414,   415,
                                                  below, above, 301, 302, 319, 65535, row.request};
        for (const std::uint16_t type : types) {
            if (type == row.reply) {
                continue;
            }
            clear_log();
            const outcome out = exchange_item(row, type, row.good);
            EXPECT_EQ(out.code, 2007U) << type;
            EXPECT_EQ(out.memory, row.memory_after_error) << type;
            EXPECT_TRUE(logged("msg type is not " + row.reply_name + ".")) << type;
        }
        expect_a_good_query(row);
    }

    void check_short_replies() {
        const query_row& row = GetParam();
        start(0);
        for (const bytes& whole : {row.good, row.failed}) {
            for (std::size_t length = 0; length < whole.size(); ++length) {
                const outcome out = exchange_item(row, row.reply, slice(whole, 0, length));
                EXPECT_EQ(out.code, 2007U) << length;
                EXPECT_EQ(out.memory, row.memory_after_error) << length;
            }
        }
        expect_a_good_query(row);
    }

    void check_failure() {
        const query_row& row = GetParam();
        start(0);
        if (!row.failed.empty()) {
            const outcome out = exchange_item(row, row.reply, row.failed);
            EXPECT_EQ(out.code, 2005U);
            EXPECT_EQ(out.memory, row.memory_after_failure);
        }
        expect_a_good_query(row);
    }

    void check_malformed_messages() {
        const query_row& row = GetParam();
        const debugging on;
        start(0);
        const outcome empty = exchange(row, wire().u32(8).u8(1).u16(0).u8(0));
        EXPECT_EQ(empty.code, 2007U);
        EXPECT_EQ(empty.memory, row.memory_after_error);
        EXPECT_TRUE(logged("msg format error,no tlv."));
        // One item is announced, but the message has no space for it.
        EXPECT_EQ(exchange(row, wire().u32(8).u8(1).u16(1).u8(0)).code, 2007U);
        // The item claims to be longer than the message.
        bytes past_the_end = item_bytes(row.reply, row.good);
        const auto announced = static_cast<std::uint32_t>(row.good.size() + 1);
        std::memcpy(past_the_end.data(), &announced, 4);
        const outcome past = exchange(row, message_bytes({past_the_end}));
        EXPECT_EQ(past.code, 2007U);
        EXPECT_EQ(past.memory, row.memory_after_error);
        expect_a_good_query(row);
    }

    void check_lost_connection() {
        const query_row& row = GetParam();
        start(0);
        std::future<outcome> running = begin(row);
        daemon.read_item(side::sync);
        daemon.close_both();
        const outcome out = running.get();
        EXPECT_NE(out.code, 0U);
        EXPECT_EQ(out.memory, row.memory_after_error);
        EXPECT_EQ(statuses().wait(), 0U);
        daemon.accept_registration();
        EXPECT_EQ(statuses().wait(), 1U);
        expect_a_good_query(row);
    }

    // At the boundaries of the reply's headers and of its value.
    void check_interruptions() {
        const query_row& row = GetParam();
        start(0);
        const std::size_t value = other_answer(row).size();
        for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{8},
                                         std::size_t{15}, std::size_t{16}, std::size_t{17}, 15 + value}) {
            SCOPED_TRACE(length);
            expect_own_answers_after_interruption(row, length);
            if (HasFailure()) {
                return;
            }
        }
        EXPECT_EQ(statuses().size(), 0U);
    }

    static void check_not_registered() {
        const query_row& row = GetParam();
        const debugging on;
        bytes memory = row.memory;
        EXPECT_EQ(row.call(memory), 2004U);
        EXPECT_EQ(memory, row.memory_after_error);
        EXPECT_TRUE(logged("scclib no registered or scc svr no available."));
        EXPECT_EQ(g_scc_client_cb.last_call_id.load(), 0U);
    }
};

}  // namespace test

// The eight tests of a table of rows.
#define EVERY_QUERY_OF(suite, rows)                                     \
    class suite : public test::every_query {};                          \
    TEST_P(suite, SendsItsBytesAndHandsOutTheAnswer) {                  \
        check_request_and_answer();                                     \
    }                                                                   \
    TEST_P(suite, RefusesAReplyOfAnotherTypeByName) {                   \
        check_wrong_types();                                            \
    }                                                                   \
    TEST_P(suite, RefusesEveryReplyThatIsTooShort) {                    \
        check_short_replies();                                          \
    }                                                                   \
    TEST_P(suite, ReturnsTheResultOfItsReply) {                         \
        check_failure();                                                \
    }                                                                   \
    TEST_P(suite, RefusesMalformedMessages) {                           \
        check_malformed_messages();                                     \
    }                                                                   \
    TEST_P(suite, ReturnsAnErrorWhenTheConnectionIsLostAndWorksAgain) { \
        check_lost_connection();                                        \
    }                                                                   \
    TEST_P(suite, InterruptedLeavesTheNextItsOwnAnswer) {               \
        check_interruptions();                                          \
    }                                                                   \
    TEST_P(suite, IsUnavailableWhenNotRegistered) {                     \
        check_not_registered();                                         \
    }                                                                   \
    INSTANTIATE_TEST_SUITE_P(Of, suite, ::testing::ValuesIn(rows), test::query_name)
