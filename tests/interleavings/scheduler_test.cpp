#include "scheduler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "litmus_programs.h"

using namespace interleavings;
using testing::HasSubstr;

namespace {

outcome explore_all(const program& what) {
    return explore(what, {});
}

bounds preemptions(int most) {
    return {.preemptions = most};
}

}  // namespace

TEST(Scheduler, MakesEachOrderOnce) {
    const outcome result = explore_all(litmus::counted);

    EXPECT_EQ(result.violation, "");
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.executions, 6U);
}

TEST(Scheduler, MakesOneExecutionOfIndependentThreads) {
    EXPECT_EQ(explore_all(litmus::independent).executions, 1U);
}

TEST(Scheduler, CountsPreemptions) {
    // Without preemption, either thread runs first.
    EXPECT_EQ(explore(litmus::counted, preemptions(0)).executions, 2U);
    EXPECT_LT(explore(litmus::counted, preemptions(1)).executions,
              explore(litmus::counted, preemptions(2)).executions);
}

TEST(Scheduler, FindsALostUpdate) {
    EXPECT_EQ(explore_all(litmus::update).violation, "An addition is lost.");
    EXPECT_EQ(explore(litmus::update, preemptions(1)).violation, "An addition is lost.");
    EXPECT_EQ(explore(litmus::update, preemptions(0)).violation, "");
}

TEST(Scheduler, RepeatsAViolationByItsSchedule) {
    const outcome found = explore_all(litmus::update);

    const outcome again = repeat(litmus::update, {}, found.schedule);

    EXPECT_EQ(again.violation, found.violation);
    EXPECT_FALSE(again.trace.empty());
    EXPECT_EQ(repeat(litmus::update, {}, "0").violation, "");
}

TEST(Scheduler, RefusesAScheduleOfAnotherProgram) {
    EXPECT_THAT(repeat(litmus::update, {}, "9").violation, HasSubstr("not one of this program"));
    EXPECT_EQ(repeat(litmus::update, {}, "-").violation, "No schedule.");
}

TEST(Scheduler, FindsLocksTakenInTwoOrders) {
    EXPECT_THAT(explore_all(litmus::inversion).violation, HasSubstr("No thread can go on"));
    EXPECT_THAT(explore(litmus::inversion, preemptions(1)).violation, HasSubstr("No thread can go on"));
}

TEST(Scheduler, FindsALostSignal) {
    EXPECT_EQ(explore_all(litmus::waiting).violation, "");
    EXPECT_THAT(explore_all(litmus::waiting_without_lock).violation, HasSubstr("No thread can go on"));
}

TEST(Scheduler, EndsAWaitWithoutASignal) {
    EXPECT_EQ(explore_all(litmus::waiting_without_loop).violation, "The wait ended too early.");
}

TEST(Scheduler, CutsAnExecutionThatDoesNotEnd) {
    const outcome result = explore(litmus::endless, {.preemptions = 0, .steps = 100});

    EXPECT_EQ(result.violation, "");
    EXPECT_GT(result.cut, 0U);
}

TEST(Scheduler, EndsAThreadThatLoopsWithoutAnOperation) {
    EXPECT_EQ(explore_all(litmus::endless_without_operations).violation, "The execution does not end.");
}

TEST(Scheduler, StopsAtAViolationInTheEnd) {
    EXPECT_EQ(explore_all(litmus::failing_in_the_end).violation, "It never holds.");
}

TEST(Memory, LetsALoadReturnAnOldValue) {
    EXPECT_EQ(explore_all(litmus::buffering_relaxed).violation, "Both read the old value.");
    EXPECT_EQ(explore_all(litmus::buffering_seq_cst).violation, "");
}

TEST(Memory, OrdersWhatIsReleasedBeforeWhatIsAcquired) {
    EXPECT_EQ(explore_all(litmus::passing).violation, "");
    EXPECT_EQ(explore_all(litmus::passing_relaxed_store).violation, "The flag came before the message.");
    EXPECT_EQ(explore_all(litmus::passing_relaxed_load).violation, "The flag came before the message.");
}

TEST(Memory, FindsADataRace) {
    EXPECT_EQ(explore_all(litmus::plain_passing).violation, "");
    EXPECT_THAT(explore_all(litmus::plain_passing_relaxed).violation, HasSubstr("Data race"));
}

TEST(Memory, NeverLetsAThreadGoBackInTime) {
    const outcome result = explore_all(litmus::coherent);

    EXPECT_EQ(result.violation, "");
    EXPECT_TRUE(result.complete);
}

TEST(Memory, FindsTheUseOfAFreedBlock) {
    EXPECT_EQ(explore_all(litmus::freed).violation, "A block is used after it was freed.");
}
