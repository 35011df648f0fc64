// When the service's queue gives its memory back: once after it was long, and only while nothing waits.
#include <gtest/gtest.h>

#include <cstdlib>

#include "client/message_queue.h"
#include "support/faults.h"

namespace {

constexpr int long_queue = 1024;

class QueueMemory : public ::testing::Test {
  protected:
    ~QueueMemory() override { test::end_faults(); }

    static void enqueue(int count) {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(scc::enqueue_message(3, &message));
        }
    }

    static void dequeue(int count) {
        for (int i = 0; i < count; ++i) {
            scc::scc_lib_msg_node* node = scc::dequeue_message();
            ASSERT_NE(node, nullptr);
            free(node);
        }
    }

    static int given_back() {
        scc::give_queue_memory_back();
        return test::calls(test::call::malloc_trim);
    }

    static inline int message = 0;
};

TEST_F(QueueMemory, IsNotGivenBackByAShortQueue) {
    EXPECT_EQ(given_back(), 0);
    for (int round = 0; round < 2; ++round) {
        enqueue(long_queue - 1);
        dequeue(long_queue - 1);
        EXPECT_EQ(given_back(), 0);
    }
}

TEST_F(QueueMemory, IsGivenBackOnceAfterALongQueueThatIsEmptyAgain) {
    enqueue(long_queue);
    EXPECT_EQ(given_back(), 0);
    dequeue(long_queue - 1);
    EXPECT_EQ(given_back(), 0);
    dequeue(1);
    EXPECT_EQ(given_back(), 1);
    EXPECT_EQ(given_back(), 1);
    enqueue(long_queue + 1);
    dequeue(long_queue + 1);
    EXPECT_EQ(given_back(), 2);
    EXPECT_EQ(given_back(), 2);
}

}  // namespace
