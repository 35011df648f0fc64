// The workstation's event loop. Tasks run on the test's own thread, or on a loop thread where the test is
// about other threads.
#include <gtest/gtest.h>
#include <qx_thread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

// A task's argument: what it does.
using action = std::function<void(qx_thread*)>;

int run_action(qx_thread* task) {
    (*static_cast<action*>(qx_thread_arg(task)))(task);
    return 0;
}

class pipe_ends {
  public:
    pipe_ends() { EXPECT_EQ(pipe(ends_), 0); }
    ~pipe_ends() {
        close(ends_[0]);
        close(ends_[1]);
    }
    pipe_ends(const pipe_ends&) = delete;
    pipe_ends& operator=(const pipe_ends&) = delete;

    [[nodiscard]] int reading() const { return ends_[0]; }
    [[nodiscard]] int writing() const { return ends_[1]; }
    void fill() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }

  private:
    int ends_[2] = {-1, -1};
};

class QxThread : public ::testing::Test {
  protected:
    QxThread() : master(qx_thread_master_create()) {}
    ~QxThread() override { qx_thread_master_free(master); }

    qx_thread* add(action& what, int value = 0, const char* name = "test") {
        return qx_thread_add_event_withname(master, run_action, &what, value, name);
    }
    qx_thread* add_read(action& what, int fd) {
        return qx_thread_add_read_high_withname(master, run_action, &what, fd, "read");
    }
    qx_thread* add_write(action& what, int fd) {
        return qx_thread_add_write_withname(master, run_action, &what, fd, "write");
    }
    qx_thread* add_timer(action& what, long seconds) {
        return qx_thread_add_timer_withname(master, run_action, &what, seconds, "timer");
    }

    // Runs the loop until everything that is ready by now has run: a timer of 1 second ends it.
    void run_for_a_second() {
        action stop = [this](qx_thread*) { qx_thread_master_stop(master); };
        ASSERT_NE(add_timer(stop, 1), nullptr);
        EXPECT_EQ(qx_thread_master_run(master), 0);
    }

    action stop_loop = [this](qx_thread*) { qx_thread_master_stop(master); };
    qx_thread_master* master;
};

TEST_F(QxThread, HasEachTaskRunOnce) {
    int events = 0;
    int reads = 0;
    int writes = 0;
    const pipe_ends ends;
    ends.fill();
    action count_event = [&](qx_thread*) { ++events; };
    action count_read = [&](qx_thread*) { ++reads; };  // leaves the byte there
    action count_write = [&](qx_thread*) { ++writes; };
    ASSERT_NE(add(count_event), nullptr);
    ASSERT_NE(add_read(count_read, ends.reading()), nullptr);
    ASSERT_NE(add_write(count_write, ends.writing()), nullptr);
    run_for_a_second();
    EXPECT_EQ(events, 1);
    EXPECT_EQ(reads, 1);
    EXPECT_EQ(writes, 1);
}

TEST_F(QxThread, TellsAHandlerWhatItsTaskWasAddedWith) {
    const pipe_ends ends;
    action look_at_event = [&](qx_thread* task) {
        EXPECT_EQ(qx_thread_value(task), 42);
        EXPECT_STREQ(qx_thread_name(task), "forty-two");
        EXPECT_EQ(qx_thread_fd(task), -1);
    };
    action look_at_write = [&](qx_thread* task) {
        EXPECT_EQ(qx_thread_fd(task), ends.writing());
        EXPECT_EQ(qx_thread_arg(task), &look_at_write);
        EXPECT_STREQ(qx_thread_name(task), "write");
        qx_thread_master_stop(master);
    };
    ASSERT_NE(add(look_at_event, 42, "forty-two"), nullptr);
    action chain = [&](qx_thread*) { add_write(look_at_write, ends.writing()); };
    ASSERT_NE(add(chain), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(qx_thread_arg(nullptr), nullptr);
    EXPECT_EQ(qx_thread_fd(nullptr), -1);
    EXPECT_EQ(qx_thread_value(nullptr), 0);
    EXPECT_EQ(qx_thread_name(nullptr), nullptr);
}

TEST_F(QxThread, RunsEventsInTheOrderInWhichTheyWereAdded) {
    std::vector<int> order;
    action note = [&](qx_thread* task) { order.push_back(qx_thread_value(task)); };
    for (int value = 1; value <= 5; ++value) {
        ASSERT_NE(add(note, value), nullptr);
    }
    ASSERT_NE(add(stop_loop), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_F(QxThread, PrefersAHighPriorityReadToEverythingElseThatIsReady) {
    std::vector<std::string> order;
    const pipe_ends ends;
    ends.fill();
    action note = [&](qx_thread* task) { order.emplace_back(qx_thread_name(task)); };
    ASSERT_NE(add_write(note, ends.writing()), nullptr);
    ASSERT_NE(add(note, 0, "event"), nullptr);
    ASSERT_NE(add_read(note, ends.reading()), nullptr);
    run_for_a_second();
    ASSERT_EQ(order.size(), 3U);
    EXPECT_EQ(order.front(), "read");
}

TEST_F(QxThread, WaitsForATimersSeconds) {
    std::vector<std::string> order;
    action late = [&](qx_thread*) { order.emplace_back("late"); };
    action soon = [&](qx_thread*) { order.emplace_back("soon"); };
    action never = [&](qx_thread*) { order.emplace_back("never"); };
    const auto before = std::chrono::steady_clock::now();
    ASSERT_NE(add_timer(never, 1000), nullptr);
    ASSERT_NE(add_timer(late, 1), nullptr);
    ASSERT_NE(add_timer(soon, 0), nullptr);
    ASSERT_NE(add_timer(stop_loop, 1), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(order, (std::vector<std::string>{"soon", "late"}));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(990));
}

TEST_F(QxThread, TakesANegativeIntervalForNone) {
    ASSERT_NE(add_timer(stop_loop, -5), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
}

TEST_F(QxThread, LetsAHandlerAddItselfAgain) {
    int runs = 0;
    const pipe_ends ends;
    ends.fill();
    ends.fill();
    ends.fill();
    action reader = [&](qx_thread* task) {
        char byte = 0;
        EXPECT_EQ(read(qx_thread_fd(task), &byte, 1), 1);
        if (++runs == 3) {
            qx_thread_master_stop(master);
        } else {
            EXPECT_NE(add_read(reader, qx_thread_fd(task)), nullptr);
        }
    };
    ASSERT_NE(add_read(reader, ends.reading()), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(runs, 3);
}

TEST_F(QxThread, KeepsReadingWhileAnEventAddsItselfAgainAndAgain) {
    const pipe_ends ends;
    int runs = 0;
    action reader = [this](qx_thread*) { qx_thread_master_stop(master); };
    action restless = [&](qx_thread*) {
        if (++runs == 3) {
            ends.fill();
        }
        EXPECT_NE(add(restless), nullptr);
    };
    ASSERT_NE(add_read(reader, ends.reading()), nullptr);
    ASSERT_NE(add(restless), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(runs, 3) << "the read did not overtake";
}

TEST_F(QxThread, RefusesWhatCannotBeWaitedFor) {
    action nothing = [](qx_thread*) {};
    EXPECT_EQ(add_read(nothing, -1), nullptr);
    EXPECT_EQ(add_write(nothing, -1), nullptr);
    EXPECT_EQ(add_read(nothing, 100000), nullptr);
    EXPECT_EQ(qx_thread_add_event_withname(nullptr, run_action, nullptr, 0, "x"), nullptr);
    EXPECT_EQ(qx_thread_add_event_withname(master, nullptr, nullptr, 0, "x"), nullptr);
    EXPECT_EQ(qx_thread_add_timer_withname(nullptr, run_action, nullptr, 0, "x"), nullptr);
    EXPECT_EQ(qx_thread_add_read_high_withname(nullptr, run_action, nullptr, 0, "x"), nullptr);
    EXPECT_EQ(qx_thread_add_write_withname(master, nullptr, nullptr, 0, "x"), nullptr);
    EXPECT_EQ(qx_thread_master_run(nullptr), -1);
    qx_thread_master_stop(nullptr);
    qx_thread_master_free(nullptr);
    qx_thread_cancel(nullptr);
}

// ---- cancelling

TEST_F(QxThread, NeverRunsATaskThatWasCancelledBeforeTheLoop) {
    bool ran = false;
    const pipe_ends ends;
    ends.fill();
    action never = [&](qx_thread*) { ran = true; };
    for (qx_thread* task : {add(never), add_read(never, ends.reading()), add_write(never, ends.writing()),
                            add_timer(never, 0)}) {
        ASSERT_NE(task, nullptr);
        qx_thread_cancel(task);
    }
    run_for_a_second();
    EXPECT_FALSE(ran);
}

TEST_F(QxThread, NeverRunsAReadyTaskThatAnEarlierHandlerCancels) {
    bool ran = false;
    const pipe_ends ends;
    ends.fill();
    std::vector<qx_thread*> victims;
    action never = [&](qx_thread*) { ran = true; };
    action canceller = [&](qx_thread*) {
        for (qx_thread* victim : victims) {
            qx_thread_cancel(victim);
        }
    };
    ASSERT_NE(add_read(canceller, ends.reading()), nullptr);  // first, by its priority
    victims = {add(never), add_write(never, ends.writing()), add_timer(never, 0)};
    run_for_a_second();
    EXPECT_FALSE(ran);
}

TEST_F(QxThread, IgnoresACancelOfTheTaskThatIsRunningAndOfOneThatHasRun) {
    int runs = 0;
    action itself = [&](qx_thread* task) {
        qx_thread_cancel(task);
        qx_thread_cancel(task);
        ++runs;
    };
    qx_thread* const stale = add(itself);
    ASSERT_NE(stale, nullptr);
    ASSERT_NE(add(stop_loop), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    qx_thread_cancel(stale);
    qx_thread_cancel(stale);
    EXPECT_EQ(runs, 1);
}

TEST_F(QxThread, NeverTakesAStaleHandleForANewerTask) {
    int runs = 0;
    action count = [&](qx_thread*) { ++runs; };
    std::vector<qx_thread*> stale;
    for (int i = 0; i < 50; ++i) {
        stale.push_back(add(count));
    }
    run_for_a_second();
    ASSERT_EQ(runs, 50);
    for (int i = 0; i < 50; ++i) {
        ASSERT_NE(add(count), nullptr);
    }
    for (qx_thread* handle : stale) {
        qx_thread_cancel(handle);
    }
    run_for_a_second();
    EXPECT_EQ(runs, 100);
}

TEST_F(QxThread, CancelsATaskOnceWhenTwoThreadsDo) {
    action never = [&](qx_thread*) { ADD_FAILURE() << "a cancelled task ran"; };
    for (int round = 0; round < 200; ++round) {
        qx_thread* const task = add_timer(never, 1000);
        std::thread other([task] { qx_thread_cancel(task); });
        qx_thread_cancel(task);
        other.join();
    }
    EXPECT_TRUE(add(stop_loop) != nullptr && qx_thread_master_run(master) == 0);
}

// ---- stopping

TEST_F(QxThread, ReturnsAfterTheHandlerThatStopsAndRunsTheRestNextTime) {
    int later = 0;
    action count = [&](qx_thread*) { ++later; };
    ASSERT_NE(add(stop_loop), nullptr);
    ASSERT_NE(add(count), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(later, 0);
    ASSERT_NE(add(stop_loop), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(later, 1);
}

TEST_F(QxThread, ReturnsAtOnceWhenItWasStoppedBeforeItRan) {
    int runs = 0;
    action count = [&](qx_thread*) {
        ++runs;
        qx_thread_master_stop(master);
    };
    ASSERT_NE(add(count), nullptr);
    qx_thread_master_stop(master);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(runs, 1);
}

TEST_F(QxThread, IsStoppedByAnotherThreadHoweverEarlyOrLateThatComes) {
    for (int round = 0; round < 2000; ++round) {
        std::thread loop([this] { EXPECT_EQ(qx_thread_master_run(master), 0); });
        if (round % 2 != 0) {
            std::this_thread::yield();
        }
        qx_thread_master_stop(master);
        loop.join();
    }
}

TEST_F(QxThread, FreesAMasterWithTasksThatNeverRan) {
    const pipe_ends ends;
    action nothing = [](qx_thread*) {};
    ASSERT_NE(add(nothing), nullptr);
    ASSERT_NE(add_timer(nothing, 1000), nullptr);
    ASSERT_NE(add_read(nothing, ends.reading()), nullptr);
    qx_thread_cancel(add(nothing));
    qx_thread_master_free(master);
    master = nullptr;
    qx_thread* const unknown = reinterpret_cast<qx_thread*>(&nothing);
    qx_thread_cancel(unknown);
}

TEST_F(QxThread, KeepsTheTasksOfTwoMastersApart) {
    qx_thread_master* const other = qx_thread_master_create();
    std::vector<std::string> order;
    action here = [&](qx_thread*) {
        order.emplace_back("here");
        qx_thread_master_stop(master);
    };
    action there = [&](qx_thread*) {
        order.emplace_back("there");
        qx_thread_master_stop(other);
    };
    ASSERT_NE(qx_thread_add_event_withname(other, run_action, &there, 0, nullptr), nullptr);
    ASSERT_NE(add(here), nullptr);
    EXPECT_EQ(qx_thread_master_run(master), 0);
    EXPECT_EQ(order, std::vector<std::string>{"here"});
    EXPECT_EQ(qx_thread_master_run(other), 0);
    EXPECT_EQ(order, (std::vector<std::string>{"here", "there"}));
    qx_thread_master_free(other);
}

// ---- threads

TEST_F(QxThread, TakesTasksFromManyThreadsAndLosesNone) {
    constexpr int adders = 4;
    constexpr int tasks_each = 2000;
    int ran = 0;  // the loop's thread alone
    action count = [&](qx_thread*) {
        if (++ran == adders * tasks_each) {
            qx_thread_master_stop(master);
        }
    };
    std::vector<std::thread> threads;
    for (int adder = 0; adder < adders; ++adder) {
        threads.emplace_back([&] {
            for (int i = 0; i < tasks_each; ++i) {
                ASSERT_NE(add(count), nullptr);
            }
        });
    }
    EXPECT_EQ(qx_thread_master_run(master), 0);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ran, adders * tasks_each);
}

TEST_F(QxThread, WakesAWaitingLoopForATaskOfAnotherThread) {
    std::atomic<bool> ran{false};
    action mark = [&](qx_thread*) {
        ran = true;
        qx_thread_master_stop(master);
    };
    std::thread loop([this] { qx_thread_master_run(master); });
    ASSERT_NE(add(mark), nullptr);
    loop.join();
    EXPECT_TRUE(ran);
}

TEST_F(QxThread, EitherRunsOrCancelsATaskThatIsCancelledWhileItBecomesReady) {
    std::atomic<int> ran{0};
    action count = [&](qx_thread*) { ++ran; };
    std::thread loop([this] { qx_thread_master_run(master); });
    for (int round = 0; round < 3000; ++round) {
        qx_thread* const task = add(count);
        ASSERT_NE(task, nullptr);
        qx_thread_cancel(task);
    }
    ASSERT_NE(add(stop_loop), nullptr);
    loop.join();
    EXPECT_LE(ran.load(), 3000);
    const int before = ran.load();
    run_for_a_second();
    EXPECT_EQ(ran.load(), before);
}

}  // namespace
