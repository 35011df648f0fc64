// The queue between the service's receive and processing threads.
#include "client/message_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "client/tuning.h"
#include "support/aside.h"

namespace {

class MessageQueue : public ::testing::Test {
  protected:
    MessageQueue() { scc::init_message_queue(); }

    static void expect_next(int fd, const void* message) {
        scc::scc_lib_msg_node* node = scc::dequeue_message();
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->fd, fd);
        EXPECT_EQ(node->message, message);
        free(node);
    }
};

TEST_F(MessageQueue, IsFirstInFirstOut) {
    int messages[3] = {};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(scc::enqueue_message(10 + i, &messages[i]));
    }
    for (int i = 0; i < 3; ++i) {
        expect_next(10 + i, &messages[i]);
    }
}

TEST_F(MessageQueue, ASecondStartLeavesWhatIsQueued) {
    int message = 0;
    ASSERT_TRUE(scc::enqueue_message(3, &message));
    scc::init_message_queue();
    expect_next(3, &message);
}

TEST_F(MessageQueue, GivesNoMemoryBackWhileMessagesWait) {
    std::vector<int> messages(scc::tuning::long_queue_messages);
    for (int& message : messages) {
        ASSERT_TRUE(scc::enqueue_message(3, &message));
    }
    scc::give_queue_memory_back();
    for (int& message : messages) {
        expect_next(3, &message);
    }
    scc::give_queue_memory_back();
}

TEST_F(MessageQueue, WaitsThreeSecondsForNothing) {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(scc::dequeue_message(), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(2990));
}

TEST_F(MessageQueue, WakesAWaitingThread) {
    static int messages[200] = {};
    std::thread taking([] {
        for (int i = 0; i < 200; ++i) {
            scc::scc_lib_msg_node* node = nullptr;
            while (node == nullptr) {
                node = scc::dequeue_message();
            }
            EXPECT_EQ(node->message, &messages[i]);
            free(node);
        }
    });
    for (int& message : messages) {
        ASSERT_TRUE(scc::enqueue_message(1, &message));
    }
    taking.join();
}

// A start without memory for the batch does not prepare the queue, and its threads run all the same.
TEST(UnpreparedMessageQueue, IsPreparedByTheFirstMessage) {
    int message = 0;
    ASSERT_TRUE(scc::enqueue_message(3, &message));
    scc::scc_lib_msg_node* node = scc::dequeue_message();
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->message, &message);
    free(node);
}

TEST(UnpreparedMessageQueue, IsPreparedByAStart) {
    scc::init_message_queue();
    EXPECT_EQ(g_scc_lib_msg_q.next, &g_scc_lib_msg_q);
}

TEST_F(MessageQueue, IsLockedByWhoeverAddsAndWhoeverTakes) {
    static int message = 0;
    const std::function<bool()> acts[] = {[] { return scc::enqueue_message(3, &message); },
                                          [] {
                                              scc::scc_lib_msg_node* node = scc::dequeue_message();
                                              free(node);
                                              return node != nullptr;
                                          }};
    for (const std::function<bool()>& act : acts) {
        ASSERT_EQ(pthread_mutex_lock(&g_scc_lib_msg_mutex), 0);
        test::aside<bool> waiting(act);
        EXPECT_TRUE(waiting.waits_in(test::waiting_for_a_lock));
        pthread_mutex_unlock(&g_scc_lib_msg_mutex);
        EXPECT_TRUE(waiting.get());
    }
}

}  // namespace
