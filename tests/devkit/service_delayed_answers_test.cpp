#include <gtest/gtest.h>
#include <pthread.h>

#include <future>
#include <vector>

#include "service/delayed_answers.h"

namespace scc::service {
namespace {

using std::chrono::milliseconds;

TEST(ServiceDelayedAnswers, WithoutADelayTheCallerSendsItself) {
    delayed_answers answers(milliseconds(0));
    ASSERT_EQ(answers.start(), 0u);
    std::thread::id sender;
    answers.send([&] { sender = std::this_thread::get_id(); });
    EXPECT_EQ(sender, std::this_thread::get_id());
}

TEST(ServiceDelayedAnswers, WithADelayAnotherThreadSendsNoSoonerAndInOrder) {
    delayed_answers answers(milliseconds(20));
    ASSERT_EQ(answers.start(), 0u);
    std::vector<int> order;
    std::promise<std::thread::id> last;
    const auto begin = std::chrono::steady_clock::now();
    answers.send([&] { order.push_back(1); });
    answers.send([&] { order.push_back(2); });
    answers.send([&] { last.set_value(std::this_thread::get_id()); });
    EXPECT_NE(last.get_future().get(), std::this_thread::get_id());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(20));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(ServiceDelayedAnswers, StoppingDropsWhatIsStillWaiting) {
    bool sent = false;
    {
        delayed_answers answers(milliseconds(3'600'000));
        ASSERT_EQ(answers.start(), 0u);
        answers.send([&] { sent = true; });
        answers.stop();
        answers.send([&] { sent = true; });
    }
    EXPECT_FALSE(sent);
}

TEST(ServiceDelayedAnswers, WithoutAThreadTheStartFails) {
    pthread_attr_t before;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    pthread_attr_t enormous = before;
    ASSERT_EQ(pthread_attr_setstacksize(&enormous, std::size_t{1} << 46), 0);
    ASSERT_EQ(pthread_setattr_default_np(&enormous), 0);
    delayed_answers answers(milliseconds(20));
    const u32 error = answers.start();
    ASSERT_EQ(pthread_setattr_default_np(&before), 0);
    EXPECT_EQ(error, static_cast<u32>(EAGAIN));
    EXPECT_EQ(answers.start(), 0u);
}

}  // namespace
}  // namespace scc::service
