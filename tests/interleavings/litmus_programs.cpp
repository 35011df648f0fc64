// Programs whose outcome is known, for the tests of the driver itself.
#include "litmus_programs.h"

#include <pthread.h>

#include <atomic>

extern "C" {
int woven_pthread_mutex_lock(pthread_mutex_t* mutex);
int woven_pthread_mutex_unlock(pthread_mutex_t* mutex);
int woven_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int woven_pthread_cond_signal(pthread_cond_t* condition);
void* woven_malloc(std::size_t size);
void woven_free(void* at);
}

namespace interleavings {
namespace {

using enum std::memory_order;

// Two threads of two operations each on one location: six orders.
class two_by_two : public actors {
  public:
    void run(unsigned /*thread*/) override {
        value_.fetch_add(1, relaxed);
        value_.fetch_add(1, relaxed);
    }
    void finish() override { require(value_.load() == 4, "An addition is lost."); }

  private:
    std::atomic<int> value_{0};
};

// Two threads on locations of their own: all orders are equivalent.
class apart : public actors {
  public:
    void run(unsigned thread) override {
        for (int i = 0; i < 5; ++i) {
            value_[thread].store(i, relaxed);
        }
    }

  private:
    std::atomic<int> value_[3]{};
};

// An addition in two steps loses one of two.
class lost_update : public actors {
  public:
    void run(unsigned /*thread*/) override { value_.store(value_.load() + 1); }
    void finish() override { require(value_.load() == 2, "An addition is lost."); }

  private:
    std::atomic<int> value_{0};
};

// Store buffering: both threads may read 0, unless all is sequentially consistent.
template <std::memory_order Store, std::memory_order Load>
class store_buffering : public actors {
  public:
    void run(unsigned thread) override {
        std::atomic<int>& mine = thread == 1 ? x_ : y_;
        std::atomic<int>& other = thread == 1 ? y_ : x_;
        mine.store(1, Store);
        (thread == 1 ? first_ : second_).set(other.load(Load));
    }
    void finish() override { require(first_.get() + second_.get() != 0, "Both read the old value."); }

  private:
    std::atomic<int> x_{0};
    std::atomic<int> y_{0};
    ghost<int> first_;
    ghost<int> second_;
};

// Message passing: a thread that reads the flag reads the message.
template <std::memory_order Store, std::memory_order Load>
class message_passing : public actors {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            message_.store(1, relaxed);
            flag_.store(1, Store);
        } else if (flag_.load(Load) == 1) {
            require(message_.load(relaxed) == 1, "The flag came before the message.");
        }
    }

  private:
    std::atomic<int> message_{0};
    std::atomic<int> flag_{0};
};

// The same with a plain message, which then is a race.
template <std::memory_order Store, std::memory_order Load>
class plain_message : public actors {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            message_ = 1;
            flag_.store(1, Store);
        } else if (flag_.load(Load) == 1) {
            require(message_ == 1, "The flag came before the message.");
        }
    }

  private:
    int message_ = 0;
    std::atomic<int> flag_{0};
};

// A thread never reads an older value than it, or a thread that it synchronised with, has read.
class coherence : public actors {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            value_.store(1, relaxed);
            value_.store(2, relaxed);
        } else if (thread == 2) {
            const int first = value_.load(relaxed);
            told_.set(first);
            flag_.store(1, release);
            require(value_.load(relaxed) >= first, "A thread went back in time.");
        } else if (flag_.load(acquire) == 1) {
            require(value_.load(relaxed) >= told_.get(), "A thread read less than it was told.");
        }
    }

  private:
    std::atomic<int> value_{0};
    std::atomic<int> flag_{0};
    ghost<int> told_;
};

class locks_in_two_orders : public actors {
  public:
    void run(unsigned thread) override {
        pthread_mutex_t* first = thread == 1 ? &a_ : &b_;
        pthread_mutex_t* second = thread == 1 ? &b_ : &a_;
        woven_pthread_mutex_lock(first);
        woven_pthread_mutex_lock(second);
        woven_pthread_mutex_unlock(second);
        woven_pthread_mutex_unlock(first);
    }

  private:
    pthread_mutex_t a_{};
    pthread_mutex_t b_{};
};

// A wait for a flag. If the flag is set without the lock, the signal may come between the test and the wait.
enum class mistake { none, no_lock, no_loop };
template <mistake Made>
class wait_for_flag : public actors {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            woven_pthread_mutex_lock(&mutex_);
            while (flag_.load(relaxed) == 0) {
                woven_pthread_cond_wait(&condition_, &mutex_);
                if (Made == mistake::no_loop) {
                    break;
                }
            }
            require(flag_.load(relaxed) == 1, "The wait ended too early.");
            woven_pthread_mutex_unlock(&mutex_);
            return;
        }
        if (Made != mistake::no_lock) {
            woven_pthread_mutex_lock(&mutex_);
        }
        flag_.store(1, relaxed);
        woven_pthread_cond_signal(&condition_);
        if (Made != mistake::no_lock) {
            woven_pthread_mutex_unlock(&mutex_);
        }
    }

  private:
    pthread_mutex_t mutex_{};
    pthread_cond_t condition_{};
    std::atomic<int> flag_{0};
};

// One thread frees what the other may still read.
class use_after_free : public actors {
  public:
    use_after_free() : block_(static_cast<int*>(woven_malloc(sizeof(int)))) { *block_ = 1; }
    void run(unsigned thread) override {
        if (thread == 1) {
            woven_free(block_);
            flag_.store(1, release);
        } else if (flag_.load(acquire) == 1) {
            require(*block_ == 1, "The block has changed.");
        }
    }

  private:
    int* block_;
    std::atomic<int> flag_{0};
};

class spins_for_ever : public actors {
  public:
    void run(unsigned thread) override {
        while (thread == 1 && flag_.load(relaxed) == 0) {
        }
    }

  private:
    std::atomic<int> flag_{0};
};

class loops_for_ever : public actors {
  public:
    void run(unsigned thread) override {
        while (thread == 1 && ends_ == 0) {
        }
    }

  private:
    volatile int ends_ = 0;
};

// finish() would loop forever if the violation did not end it.
class fails_in_the_end : public actors {
  public:
    void run(unsigned /*thread*/) override {}
    void finish() override {
        for (;;) {
            require(false, "It never holds.");
        }
    }
};

constexpr bounds all{};

}  // namespace

const program litmus::counted = {"counted", 2, all, all, make<two_by_two>};
const program litmus::independent = {"independent", 2, all, all, make<apart>};
const program litmus::update = {"update", 2, all, all, make<lost_update>};
const program litmus::buffering_relaxed = {"", 2, all, all, make<store_buffering<release, acquire>>};
const program litmus::buffering_seq_cst = {"", 2, all, all, make<store_buffering<seq_cst, seq_cst>>};
const program litmus::passing = {"", 2, all, all, make<message_passing<release, acquire>>};
const program litmus::passing_relaxed_store = {"", 2, all, all, make<message_passing<relaxed, acquire>>};
const program litmus::passing_relaxed_load = {"", 2, all, all, make<message_passing<release, relaxed>>};
const program litmus::plain_passing = {"", 2, all, all, make<plain_message<release, acquire>>};
const program litmus::plain_passing_relaxed = {"", 2, all, all, make<plain_message<relaxed, acquire>>};
const program litmus::coherent = {"", 3, all, all, make<coherence>};
const program litmus::inversion = {"", 2, all, all, make<locks_in_two_orders>};
const program litmus::waiting = {"", 2, all, all, make<wait_for_flag<mistake::none>>};
const program litmus::waiting_without_lock = {"", 2, all, all, make<wait_for_flag<mistake::no_lock>>};
const program litmus::waiting_without_loop = {"", 2, all, all, make<wait_for_flag<mistake::no_loop>>};
const program litmus::freed = {"", 2, all, all, make<use_after_free>};
const program litmus::endless = {"", 2, all, all, make<spins_for_ever>};
const program litmus::endless_without_operations = {"", 2, all, all, make<loops_for_ever>};
const program litmus::failing_in_the_end = {"", 2, all, all, make<fails_in_the_end>};

}  // namespace interleavings
