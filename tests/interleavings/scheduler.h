// Runs the threads of a small program on one processor, one at a time, and decides before each operation that
// other threads can see which thread goes on. A thread is a context with a stack and a copy of its own of the
// executable's thread-local variables, so a switch costs no system call of the kernel's scheduler.
//
// Walks all orders of two kinds:
// - without a bound of preemptions: every order, except those that differ from an explored one only in the
//   order of operations that do not affect each other (sleep sets);
// - with one: every order in which a thread that could go on is interrupted at most so many times.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vector_clock.h"

namespace interleavings {

inline constexpr int unlimited = -1;

struct bounds {
    int preemptions = unlimited;
    // Loads of one execution that may return a value older than the newest. Unlimited without a bound of
    // preemptions.
    int old_values = 2;
    // Waits of one execution on a condition that may end without a signal.
    int spurious_wakeups = 1;
    // An execution with more operations is cut.
    unsigned steps = 2000;
};

enum class readiness : unsigned {
    no = 0,
    yes = 1,
    spuriously = 2,           // while another thread can go on
    when_nothing_else_is = 4  // a wait's time is over
};
[[nodiscard]] constexpr readiness operator|(readiness a, readiness b) {
    return static_cast<readiness>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
[[nodiscard]] constexpr bool includes(readiness all, readiness one) {
    return (static_cast<unsigned>(all) & static_cast<unsigned>(one)) != 0;
}

// Something that other threads can see.
struct operation {
    const char* name = "";
    // What it touches; two operations on a common address affect each other unless both only read it.
    std::array<const void*, 4> touches{};
    bool writes = true;
    // Whether another thread may interrupt before it, under a bound of preemptions.
    bool interrupts = true;
    readiness (*ready)(const void* subject, unsigned thread) = nullptr;  // null: always
    const void* subject = nullptr;
    const void* code = nullptr;  // where the program does it
};

class actors;
struct program;

struct trace_entry {
    unsigned thread;
    std::string text;
    const void* code;
};

struct outcome {
    std::uint64_t executions = 0;  // that ended
    std::uint64_t redundant = 0;   // given up: they equal an explored one
    std::uint64_t cut = 0;         // at the bound of steps
    bool complete = false;         // all executions within the bounds were made
    std::string violation;         // empty when there was none
    std::string schedule;          // that repeats it
    std::vector<trace_entry> trace;
};

// Makes all executions of the program within the bounds, up to the first violation; at most `most` when it is
// not 0.
[[nodiscard]] outcome explore(const program& what, const bounds& limit, std::uint64_t most = 0);
// Makes one, with a trace.
[[nodiscard]] outcome repeat(const program& what, const bounds& limit, std::string_view schedule);

// For instrumentation, memory and system:

// Whether a program is being explored, in its threads or on the main thread before and after them.
[[nodiscard]] bool is_exploring();
[[nodiscard]] unsigned current_thread();
// What happens before the thread's next operation; and what it cannot read older values than, which is more
// after a barrier.
[[nodiscard]] const vector_clock& current_clock();
[[nodiscard]] vector_clock& current_view();
void join_clock(const vector_clock& other);
// Ends what other threads may synchronise with: later accesses are not covered by an earlier release.
void advance_clock();
// To be called before each operation that other threads can see.
void before(const operation& next);
// Which of several outcomes the current operation has; those after the first are old values.
[[nodiscard]] unsigned choose_old_value(unsigned options);
// Whether a wait may end without a signal; and that one did.
[[nodiscard]] bool may_wake_spuriously();
void wake_spuriously();
// Whether the current thread goes on because no other one could.
[[nodiscard]] bool nothing_else_goes_on();
// Adds to the last entry of the trace.
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Reports a violation and, on a program's thread, abandons the execution.
void violate(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Whether the address lies in a thread's stack or among its variables, which no other thread reaches.
[[nodiscard]] bool belongs_to_thread(const void* address);

}  // namespace interleavings
