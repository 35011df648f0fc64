// Runs the threads of a small program one at a time and, before each operation that other threads can see,
// decides which thread runs next. A thread is a user-level context with its own stack and its own copy of the
// executable's thread-local variables, so a switch does not involve the kernel's scheduler.
//
// Explores:
// - without a bound on preemptions, every order, except those that differ from an explored one only in the
//   order of independent operations (sleep sets);
// - with a bound, every order with at most that many preemptions.
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
    // How many loads of one execution may return an older value than the newest. Unlimited without a bound on
    // preemptions.
    int old_values = 2;
    // How many waits of one execution on a condition may end without a signal.
    int spurious_wakeups = 1;
    // An execution with more operations is cut off.
    unsigned steps = 2000;
};

enum class readiness : unsigned {
    no = 0,
    yes = 1,
    spuriously = 2,           // while another thread can run
    when_nothing_else_is = 4  // a wait times out
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
    // Two operations on a common address are dependent unless both only read it.
    std::array<const void*, 4> touches{};
    bool writes = true;
    // Whether another thread may run before it, under a bound on preemptions.
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
    std::uint64_t executions = 0;  // that ran to their end
    std::uint64_t redundant = 0;   // abandoned: equivalent to an explored one
    std::uint64_t cut = 0;         // at the bound on steps
    bool complete = false;         // all executions within the bounds were explored
    std::string violation;         // empty when there was none
    std::string schedule;          // that repeats it
    std::vector<trace_entry> trace;
};

// Runs all executions of the program within the bounds, up to the first violation; at most `most` if that is
// not 0.
[[nodiscard]] outcome explore(const program& what, const bounds& limit, std::uint64_t most = 0);
// Repeats one execution, with a trace.
[[nodiscard]] outcome repeat(const program& what, const bounds& limit, std::string_view schedule);

// For instrumentation, memory and system:

// Whether a program is being explored, in its threads or on the main thread before and after them.
[[nodiscard]] bool is_exploring();
[[nodiscard]] unsigned current_thread();
// The clock of what happens before the thread's next operation, and that of what it must not read older
// values than, which is larger after a barrier.
[[nodiscard]] const vector_clock& current_clock();
[[nodiscard]] vector_clock& current_view();
void join_clock(const vector_clock& other);
// Separates later accesses of the thread from those that its releases so far cover.
void advance_clock();
// Must be called before each operation that other threads can see.
void before(const operation& next);
// Chooses one of several outcomes of the current operation; those after the first are old values.
[[nodiscard]] unsigned choose_old_value(unsigned options);
// Whether a wait may end without a signal; the second records that one did.
[[nodiscard]] bool may_wake_spuriously();
void wake_spuriously();
// Whether the current thread runs because no other could.
[[nodiscard]] bool nothing_else_goes_on();
// Adds to the last entry of the trace.
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Reports a violation and, on a program's thread, abandons the execution.
void violate(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Whether the address is in a thread's stack or thread-local variables, which no other thread reaches.
[[nodiscard]] bool belongs_to_thread(const void* address);

}  // namespace interleavings
