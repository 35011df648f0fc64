// See scheduler.h.
#include "scheduler.h"

#include <link.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "choices.h"
#include "memory.h"
#include "program.h"
#include "system.h"

// The library's variables, which the build has gathered in one section.
extern "C" {
extern char __start_woven_data[];
extern char __stop_woven_data[];
}

namespace interleavings {
namespace {

constexpr std::size_t stack_bytes = std::size_t{256} * 1024;

struct thread_record {
    ucontext_t context{};
    char* stack = nullptr;
    std::vector<char> locals;
    int error = 0;
    vector_clock clock{};
    vector_clock view{};
    operation next{};
    bool asleep = false;  // its next operation leads to an explored execution
    bool finished = false;
};

struct run_state {
    const program* what = nullptr;
    bounds limit{};
    choices decisions{};
    actors* running = nullptr;
    unsigned threads = 0;
    unsigned current = 0;
    bool exploring = false;
    bool threads_run = false;
    bool finishing = false;
    ucontext_t end_of_finish{};
    bool tracing = false;
    // Of the current execution:
    int preemptions = 0;
    int old_values = 0;
    int spurious_wakeups = 0;
    unsigned steps = 0;
    bool nothing_else = false;
    bool redundant = false;
    bool cut = false;
    std::string violation;
    std::vector<trace_entry> trace;
};

run_state g_run;
std::array<thread_record, most_threads> g_threads;
std::vector<char> g_first_locals;
std::vector<char> g_first_data;

// The executable's block of thread-local variables.
std::pair<char*, std::size_t> local_block() {
    std::pair<char*, std::size_t> block{nullptr, 0};
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* out) {
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                if (info->dlpi_phdr[i].p_type == PT_TLS) {
                    *static_cast<decltype(block)*>(out) = {static_cast<char*>(info->dlpi_tls_data),
                                                           info->dlpi_phdr[i].p_memsz};
                }
            }
            return 1;  // the executable is the first
        },
        &block);
    return block;
}

const std::pair<char*, std::size_t> g_locals = local_block();

bool is_bounded() {
    return g_run.limit.preemptions != unlimited;
}

void switch_to(unsigned to) {
    thread_record& from = g_threads[g_run.current];
    thread_record& next = g_threads[to];
    g_run.current = to;
    std::memcpy(from.locals.data(), g_locals.first, g_locals.second);
    std::memcpy(g_locals.first, next.locals.data(), g_locals.second);
    from.error = errno;
    errno = next.error;
    swapcontext(&from.context, &next.context);
}

bool affect_each_other(const operation& a, const operation& b) {
    if (!a.writes && !b.writes) {
        return false;
    }
    for (const void* one : a.touches) {
        for (const void* other : b.touches) {
            if (one != nullptr && one == other) {
                return true;
            }
        }
    }
    return false;
}

readiness readiness_of(unsigned thread) {
    const thread_record& record = g_threads[thread];
    if (record.finished) {
        return readiness::no;
    }
    return record.next.ready == nullptr ? readiness::yes : record.next.ready(record.next.subject, thread);
}

struct candidates {
    std::array<unsigned, most_threads> thread{};
    unsigned count = 0;
};

void add_ready(candidates& found, readiness kind) {
    const auto consider = [&](unsigned thread) {
        if (includes(readiness_of(thread), kind)) {
            found.thread[found.count++] = thread;
        }
    };
    if (g_run.current != 0) {
        consider(g_run.current);
    }
    for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
        if (thread != g_run.current) {
            consider(thread);
        }
    }
}

// The threads that can run, the current one first.
candidates ready_threads() {
    candidates found;
    add_ready(found, readiness::yes);
    g_run.nothing_else = found.count == 0;
    add_ready(found, found.count != 0 ? readiness::spuriously : readiness::when_nothing_else_is);
    return found;
}

bool goes_on(const candidates& ready) {
    return g_run.current != 0 && ready.thread[0] == g_run.current &&
           includes(readiness_of(g_run.current), readiness::yes);
}

// Without a bound, all but the sleeping threads. With one, only the current thread if it must not be
// interrupted.
candidates worth_exploring(const candidates& ready) {
    if (is_bounded()) {
        const bool stays = goes_on(ready) && (g_run.preemptions >= g_run.limit.preemptions ||
                                              !g_threads[g_run.current].next.interrupts);
        return stays ? candidates{{g_run.current}, 1} : ready;
    }
    candidates left;
    for (unsigned i = 0; i < ready.count; ++i) {
        if (!g_threads[ready.thread[i]].asleep) {
            left.thread[left.count++] = ready.thread[i];
        }
    }
    return left;
}

void report_deadlock() {
    std::string text;
    for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
        if (!g_threads[thread].finished) {
            text += " thread " + std::to_string(thread) + ": " + g_threads[thread].next.name + ";";
            if (g_run.tracing) {
                g_run.trace.push_back({thread, std::string("waits: ") + g_threads[thread].next.name,
                                       g_threads[thread].next.code});
            }
        }
    }
    text.back() = '.';
    g_run.violation = "No thread can go on:" + text;
}

// Updates the sleep set after one of the candidates was chosen.
void update_sleepers(const candidates& open, unsigned taken) {
    for (unsigned i = 0; i < taken; ++i) {
        g_threads[open.thread[i]].asleep = true;
    }
    const operation& done = g_threads[open.thread[taken]].next;
    for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
        thread_record& record = g_threads[thread];
        record.asleep =
            record.asleep && thread != open.thread[taken] && !affect_each_other(done, record.next);
    }
}

// The thread to run next; 0 when the execution is over.
unsigned pick() {
    const candidates ready = ready_threads();
    if (ready.count == 0) {
        for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
            if (!g_threads[thread].finished) {
                report_deadlock();
                return 0;
            }
        }
        return 0;
    }
    if (++g_run.steps > g_run.limit.steps) {
        g_run.cut = true;
        return 0;
    }
    const candidates open = worth_exploring(ready);
    if (open.count == 0) {
        g_run.redundant = true;
        return 0;
    }
    const unsigned taken = g_run.decisions.next(open.count);
    const unsigned chosen = open.thread[taken];
    if (goes_on(ready) && chosen != g_run.current) {
        ++g_run.preemptions;
    }
    if (!is_bounded()) {
        update_sleepers(open, taken);
    }
    if (g_run.tracing) {
        const operation& next = g_threads[chosen].next;
        g_run.trace.push_back({chosen, next.name, next.code});
    }
    return chosen;
}

[[noreturn]] void leave_for_good() {
    switch_to(0);
    std::abort();  // nothing resumes a thread that has ended
}

void thread_body() {
    g_run.running->run(g_run.current);
    g_threads[g_run.current].finished = true;
    advance_clock();
    const unsigned next = pick();
    switch_to(next);
    std::abort();
}

void prepare_thread(unsigned thread) {
    thread_record& record = g_threads[thread];
    record.locals = g_first_locals;
    record.error = 0;
    record.asleep = record.finished = false;
    record.clock = g_threads[0].clock;
    record.clock.ticks[thread] = 1;
    record.view = record.clock;
    record.next = {.name = "begins"};
    if (record.stack == nullptr) {
        record.stack = static_cast<char*>(
            mmap(nullptr, stack_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    }
    getcontext(&record.context);
    record.context.uc_stack.ss_sp = record.stack;
    record.context.uc_stack.ss_size = stack_bytes;
    record.context.uc_link = nullptr;
    makecontext(&record.context, thread_body, 0);
}

// An access to unmapped memory ends the execution like any other violation.
void report_bad_access(int /*signal*/) {
    if (g_run.current == 0 && !g_run.finishing) {
        (void)std::signal(SIGSEGV, SIG_DFL);  // the driver's own fault: the retried access ends the process
        return;
    }
    violate("An access to memory that does not exist.");
}

void catch_bad_accesses() {
    static std::array<char, 65536> stack;
    const stack_t own{.ss_sp = stack.data(), .ss_flags = 0, .ss_size = stack.size()};
    sigaltstack(&own, nullptr);
    struct sigaction action {};
    action.sa_handler = report_bad_access;
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    sigaction(SIGSEGV, &action, nullptr);
}

void reset_execution() {
    const auto size = static_cast<std::size_t>(__stop_woven_data - __start_woven_data);
    if (g_first_data.empty()) {
        g_first_data.assign(__start_woven_data, __start_woven_data + size);
        g_first_locals.assign(g_locals.first, g_locals.first + g_locals.second);
        g_threads[0].locals = g_first_locals;
    }
    std::memcpy(__start_woven_data, g_first_data.data(), size);
    g_run.preemptions = g_run.old_values = g_run.spurious_wakeups = 0;
    g_run.steps = 0;
    g_run.redundant = g_run.cut = false;
    g_run.violation.clear();
    g_run.trace.clear();
    g_run.decisions.rewind();
    g_run.current = 0;
    g_threads[0].clock = {};
    g_threads[0].clock.ticks[0] = 1;
    g_threads[0].view = g_threads[0].clock;
    reset_memory();
    reset_system();
}

bool was_given_up() {
    return !g_run.violation.empty() || g_run.redundant || g_run.cut;
}

// A violation ends it at once.
void finish() {
    getcontext(&g_run.end_of_finish);
    if (g_run.violation.empty()) {
        g_run.finishing = true;
        g_run.running->finish();
    }
    g_run.finishing = false;
}

void execute() {
    reset_execution();
    g_run.exploring = true;
    const std::unique_ptr<actors> running = g_run.what->make();
    g_run.running = running.get();
    advance_clock();
    for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
        prepare_thread(thread);
    }
    if (!was_given_up()) {
        g_run.threads_run = true;
        switch_to(pick());
        g_run.threads_run = false;
    }
    if (!was_given_up()) {
        for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
            join_clock(g_threads[thread].clock);
        }
        finish();
    }
    g_run.exploring = false;
}

void begin(const program& what, const bounds& limit) {
    catch_bad_accesses();
    g_run = {};
    g_run.what = &what;
    g_run.limit = limit;
    g_run.threads = what.threads;
    if (!is_bounded()) {
        g_run.limit.old_values = unlimited;
    }
}

void count(outcome& result) {
    if (g_run.redundant) {
        ++result.redundant;
    } else if (g_run.cut) {
        ++result.cut;
    } else {
        ++result.executions;
    }
}

void take_violation(outcome& result) {
    result.violation = g_run.violation;
    result.schedule = g_run.decisions.text();
    result.trace = g_run.trace;
}

}  // namespace

outcome explore(const program& what, const bounds& limit, std::uint64_t most) {
    begin(what, limit);
    outcome result;
    for (;;) {
        execute();
        count(result);
        if (g_run.decisions.has_diverged() && g_run.violation.empty()) {
            g_run.violation = "The same decisions led to another execution.";
        }
        if (!g_run.violation.empty()) {
            take_violation(result);
            return result;
        }
        if (!g_run.decisions.advance()) {
            result.complete = true;
            return result;
        }
        if (most != 0 && result.executions + result.redundant + result.cut >= most) {
            return result;
        }
    }
}

outcome repeat(const program& what, const bounds& limit, std::string_view schedule) {
    begin(what, limit);
    outcome result;
    if (!g_run.decisions.repeat(schedule)) {
        result.violation = "No schedule.";
        return result;
    }
    g_run.tracing = true;
    execute();
    count(result);
    take_violation(result);
    if (g_run.decisions.has_diverged()) {
        result.violation = "The schedule is not one of this program and these bounds.";
    }
    return result;
}

bool is_exploring() {
    return g_run.exploring;
}

unsigned current_thread() {
    return g_run.current;
}

const vector_clock& current_clock() {
    return g_threads[g_run.current].clock;
}

vector_clock& current_view() {
    return g_threads[g_run.current].view;
}

void join_clock(const vector_clock& other) {
    g_threads[g_run.current].clock.join(other);
    g_threads[g_run.current].view.join(other);
}

void advance_clock() {
    ++g_threads[g_run.current].clock.ticks[g_run.current];
    current_view().join(current_clock());
}

void before(const operation& next) {
    if (!g_run.threads_run) {
        if (next.ready != nullptr && next.ready(next.subject, 0) == readiness::no) {
            violate("The main thread waits for ever: %s.", next.name);
        }
        return;
    }
    g_threads[g_run.current].next = next;
    const unsigned chosen = pick();
    if (chosen != g_run.current) {
        switch_to(chosen);
    }
}

unsigned choose_old_value(unsigned options) {
    const bool may_choose = g_run.threads_run && (g_run.limit.old_values == unlimited ||
                                                  g_run.old_values < g_run.limit.old_values);
    const unsigned taken = may_choose ? g_run.decisions.next(options) : 0;
    g_run.old_values += taken != 0 ? 1 : 0;
    return taken;
}

bool may_wake_spuriously() {
    return g_run.spurious_wakeups < g_run.limit.spurious_wakeups;
}

bool nothing_else_goes_on() {
    return g_run.nothing_else;
}

void wake_spuriously() {
    ++g_run.spurious_wakeups;
}

void note(const char* format, ...) {
    if (!g_run.tracing || !g_run.threads_run) {
        return;
    }
    std::array<char, 160> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    g_run.trace.back().text += text.data();
}

void violate(const char* format, ...) {
    std::array<char, 400> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (g_run.violation.empty()) {
        g_run.violation = text.data();
    }
    if (g_run.threads_run) {
        leave_for_good();
    }
    if (g_run.finishing) {
        setcontext(&g_run.end_of_finish);
    }
}

bool belongs_to_thread(const void* address) {
    if (address >= g_locals.first && address < g_locals.first + g_locals.second) {
        return true;
    }
    for (unsigned thread = 1; thread <= g_run.threads; ++thread) {
        const char* stack = g_threads[thread].stack;
        if (address >= stack && address < stack + stack_bytes) {
            return true;
        }
    }
    return false;
}

void step(const char* name) {
    static const char shared = 0;
    before({.name = name, .touches = {&shared}, .code = __builtin_return_address(0)});
}

}  // namespace interleavings
