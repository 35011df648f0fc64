// Proves that an act takes a lock: while the test holds the lock the act waits for it, and it ends once the
// lock is released. The kernel names the futex that each thread sleeps on, and the futexes of a lock lie
// inside the lock.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <thread>

namespace test {

inline bool is_waited_for(const pthread_rwlock_t& lock) {
    const auto begin = reinterpret_cast<std::uintptr_t>(&lock);
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::ifstream file(task.path() / "syscall");
        long number = -1;
        std::uintptr_t address = 0;
        if (file >> number >> std::hex >> address && number == SYS_futex && address >= begin &&
            address < begin + sizeof lock) {
            return true;
        }
    }
    return false;
}

// The act runs on a thread of its own. `afterwards` does what the act needs to end once it has the lock.
template <class Act, class Afterwards>
void expect_waits_for(pthread_rwlock_t& lock, const Act& act, const Afterwards& afterwards) {
    ASSERT_EQ(pthread_rwlock_wrlock(&lock), 0);
    std::atomic<bool> ended{false};
    std::thread acting([&] {
        act();
        ended = true;
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool waits = false;
    while (!(waits = is_waited_for(lock)) && !ended && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(waits) << (ended ? "it ended while the lock was held" : "it did not ask for the lock");
    pthread_rwlock_unlock(&lock);
    afterwards();
    acting.join();
}

template <class Act>
void expect_waits_for(pthread_rwlock_t& lock, const Act& act) {
    expect_waits_for(lock, act, [] {});
}

}  // namespace test
