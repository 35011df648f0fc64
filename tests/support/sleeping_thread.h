// Whether a thread of this process sleeps in a system call, according to the kernel. A test waits for this
// before it acts on a blocked thread.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

#include "support/waiting.h"

namespace test {

using system_calls = std::initializer_list<long>;

// The calls in which a thread waits for bytes, and in which it waits for a lock or a condition.
inline constexpr system_calls waiting_for_bytes = {SYS_recvfrom,
                                                   SYS_recvmsg,
                                                   SYS_ppoll,
                                                   SYS_pselect6
#ifdef SYS_poll
                                                   ,
                                                   SYS_poll,
                                                   SYS_select
#endif
};
inline constexpr system_calls waiting_for_a_lock = {SYS_futex};

// A thread that was merely preempted inside the call is in state R.
inline bool sleeps_in(pid_t thread, system_calls calls) {
    const std::string task = "/proc/self/task/" + std::to_string(thread);
    std::string stat;
    std::getline(std::ifstream(task + "/stat"), stat);
    const auto after_name = stat.rfind(") ");
    if (after_name == std::string::npos || stat[after_name + 2] != 'S') {
        return false;
    }
    long number = -1;
    std::ifstream(task + "/syscall") >> number;
    for (const long call : calls) {
        if (call == number) {
            return true;
        }
    }
    return false;
}

inline bool wait_until_it_sleeps_in(pid_t thread, system_calls calls) {
    return eventually([&] { return sleeps_in(thread, calls); });
}

// The number of this process's threads.
inline std::size_t thread_count() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

// The first thread with that name; 0 when there is none.
inline pid_t thread_named(const std::string& name) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(task.path() / "comm"), found);
        if (found == name) {
            return std::stoi(task.path().filename());
        }
    }
    return 0;
}

}  // namespace test
