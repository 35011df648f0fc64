#include "linux/transaction_pace.h"

#include <gtest/gtest.h>

namespace scc::kernel {
namespace {

using namespace std::chrono_literals;
using clock_type = transaction_pace::clock;

constexpr pace_limits limits{10, 20ms, 40ms, 32, 1ms};
constexpr clock_type::time_point start{1h};

// Like a pace whose credit is used up at the start.
transaction_pace used_up() {
    transaction_pace pace(limits);
    pace.ended(start, 20ms, 1);
    return pace;
}

TEST(TransactionPace, TheFirstChangeDoesNotWait) {
    EXPECT_LE(transaction_pace(limits).next(1), start);
}

TEST(TransactionPace, WithoutCreditThePauseIsAMultipleOfTheTime) {
    transaction_pace pace = used_up();
    EXPECT_EQ(pace.next(1), start);
    pace.ended(start, 3ms, 1);
    EXPECT_EQ(pace.next(1), start + 30ms);
    EXPECT_EQ(pace.next(31), start + 30ms);
}

TEST(TransactionPace, CheapTransactionsAreFree) {
    transaction_pace pace = used_up();
    pace.ended(start, 1ms, 1);
    EXPECT_EQ(pace.next(1), start);
}

TEST(TransactionPace, ThePauseHasALimit) {
    transaction_pace pace = used_up();
    pace.ended(start, 1s, 1);
    EXPECT_EQ(pace.next(1), start + 40ms);
    pace.ended(start + 40ms, 0ms, 1);
    EXPECT_EQ(pace.next(1), start + 40ms) << "what exceeds the limit is forgotten";
}

TEST(TransactionPace, ManyChangesDoNotWait) {
    transaction_pace pace = used_up();
    pace.ended(start, 3ms, 1);
    EXPECT_EQ(pace.next(32), start);
}

TEST(TransactionPace, ATransactionOfManyChangesUsesNoCredit) {
    transaction_pace pace = used_up();
    pace.ended(start, 3ms, 32);
    EXPECT_EQ(pace.next(1), start);
}

TEST(TransactionPace, CreditComesBackWithTimeUpToItsLimit) {
    transaction_pace pace = used_up();
    pace.ended(start + 100ms, 10ms, 1);
    EXPECT_EQ(pace.next(1), start + 100ms);
    pace.ended(start + 1h, 21ms, 1);
    EXPECT_EQ(pace.next(1), start + 1h + 10ms);
}

// A hundred changes a second for a minute, each for itself 2 ms of work.
TEST(TransactionPace, ChangesThatTrickleInGetTheirShare) {
    transaction_pace pace(limits);
    clock_type::time_point now = start;
    std::chrono::nanoseconds longest_wait{};
    auto used = 0ms;
    for (std::size_t change = 0; change < 6'000;) {
        const clock_type::time_point arrival = start + change * 10ms;
        now = std::max({now, arrival, pace.next(1)});
        const auto waiting = static_cast<std::size_t>((now - start) / 10ms) + 1 - change;
        longest_wait = std::max<std::chrono::nanoseconds>(longest_wait, now - arrival);
        used += 2ms;
        now += 2ms;
        pace.ended(now, 2ms, waiting);
        change += waiting;
    }
    EXPECT_LE(used, 6s + 20ms + 2ms);
    EXPECT_GE(used, 5s) << "the share is used";
    EXPECT_LE(longest_wait, 42ms);
}

}  // namespace
}  // namespace scc::kernel
