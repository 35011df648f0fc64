#include "sweep/life.h"

#include <qx_syslog.h>
#include <stdarg.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "support/result_handlers.h"
#include "support/wire_bytes.h"
#include "sweep/shim.h"

namespace sweep {
namespace {

using clock = std::chrono::steady_clock;

// Limits after the fault has struck: for one wait, and for all of them together.
constexpr int shaken_wait_ms = 150;
constexpr int shaken_waits_ms = 500;

// Some calls retry until they succeed, so a lasting fault ends after this time.
constexpr int lasting_fault_ms = 1500;

struct running_call {
    std::atomic<const char*> name{nullptr};
    std::atomic<clock::rep> since{0};
};

constexpr std::uint32_t nothing_yet = 2;

struct reports {
    std::mutex mutex;
    std::uint32_t status = nothing_yet;
    bool may_begin_lost = false;
    std::string history;  // of statuses, with a bar between two registrations
    unsigned losses = 0;
    unsigned late = 0;  // registrations of failed starts that may still be reported
    unsigned notifications = 0;
    std::map<std::uint32_t, unsigned> results;
    std::set<std::uint32_t> calls;
};

struct life {
    std::unique_ptr<peer> daemon;
    std::atomic<bool> proving{false};
    std::atomic<bool> failed{false};
    int spent_ms = 0;  // of shaken_waits_ms
    running_call current;
    std::set<std::string> complaints;
    std::mutex complaining;
    reports seen;
};

// Never destroyed: the library's threads live as long as the process.
life& self() {
    static auto* one = new life;
    return *one;
}

void watch_calls() {
    const auto born = clock::now();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const char* name = self().current.name;
        const clock::time_point since{clock::duration{self().current.since.load()}};
        const auto lasted = clock::now() - since;
        if (name != nullptr && lasted > std::chrono::milliseconds(lasting_fault_ms)) {
            end_lasting_fault();
        }
        if (name != nullptr && lasted > std::chrono::seconds(call_bound_seconds)) {
            complain(std::string("hangs: ") + name + " has not returned");
        } else if (clock::now() - born > std::chrono::seconds(run_bound_seconds)) {
            complain("hangs: the run does not end");
        } else {
            continue;
        }
        std::printf("met %d\n", is_met() ? 1 : 0);
        std::fflush(stdout);
        _exit(1);
    }
}

bool poll_until(clock::time_point until, const std::function<bool()>& condition) {
    while (!condition()) {
        if (clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

bool is_documented(std::uint32_t result) {
    return result == 0 || std::strncmp(scc_strerror(static_cast<std::int32_t>(result)), "unknown", 7) != 0;
}

template <class Handler>
struct reporter;

template <class... Arguments>
struct reporter<void (*)(std::uint32_t, std::uint32_t, Arguments...)> {
    static void call(std::uint32_t result, std::uint32_t call_id, Arguments... /*arguments*/) {
        on_result(result, call_id);
    }
};

}  // namespace

void complain(const std::string& what) {
    self().failed = true;
    const std::lock_guard guard(self().complaining);
    if (!self().complaints.insert(what).second) {
        return;
    }
    std::printf("failure %s\n", what.c_str());
    std::fflush(stdout);
}

bool has_failed() {
    return self().failed;
}

peer& the_daemon() {
    return *self().daemon;
}

void begin_life(const std::string& directory) {
    std::thread(watch_calls).detach();
    self().daemon = std::make_unique<peer>(directory + "/security/scc");
}

bool is_proving() {
    return self().proving;
}

void begin_proof() {
    self().proving = true;
}

std::uint32_t timed(const char* name, const std::function<std::uint32_t()>& call) {
    self().current.since = clock::now().time_since_epoch().count();
    self().current.name = name;
    const std::uint32_t result = call();
    self().current.name = nullptr;
    if (!is_documented(result)) {
        complain(std::string(name) + " returned " + std::to_string(result));
    }
    return result;
}

std::uint32_t attempt(const char* name, const std::function<std::uint32_t()>& call) {
    const bool met_before = is_met();
    const std::uint32_t result = timed(name, call);
    if (result != 0 && !met_before && !is_met()) {
        complain(std::string(name) + " returned " + std::to_string(result) + " without a fault");
    }
    return result;
}

void require(const char* name, const std::function<std::uint32_t()>& call, std::uint32_t expected) {
    const std::uint32_t result = timed(name, call);
    if (result != expected) {
        complain(std::string(name) + " returned " + std::to_string(result) + " after the fault, expected " +
                 std::to_string(expected));
    }
}

bool wait_at_most(int milliseconds, const std::function<bool()>& condition) {
    return poll_until(clock::now() + std::chrono::milliseconds(milliseconds), condition);
}

bool wait_for(const char* what, const std::function<bool()>& condition) {
    const auto begun = clock::now();
    const auto until = begun + std::chrono::seconds(proof_bound_seconds);
    if (is_proving()) {
        const bool held = poll_until(until, condition);
        if (!held) {
            complain(std::string("not within the bound after the fault: ") + what);
        }
        return held;
    }
    // Until the fault strikes, the wait is not shortened.
    poll_until(until, [&] { return condition() || is_met(); });
    if (condition()) {
        return true;
    }
    if (!is_met()) {
        complain(std::string("without a fault: no ") + what);
        return false;
    }
    const int left = std::min(shaken_wait_ms, shaken_waits_ms - self().spent_ms);
    const auto shaken = clock::now();
    const bool held = left > 0 && wait_at_most(left, condition);
    self().spent_ms += static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - shaken).count());
    return held;
}

void on_status(std::uint32_t status) {
    const std::lock_guard guard(self().seen.mutex);
    const std::uint32_t before = self().seen.status;
    if (status == 1 && before == 1 && self().seen.late > 0) {
        --self().seen.late;
        return;
    }
    const bool first_is_loss = before == nothing_yet && status == 0 && !self().seen.may_begin_lost;
    if (status > 1 || status == before || first_is_loss) {
        complain("server_status(" + std::to_string(status) + ") follows " +
                 (before == nothing_yet ? "the start" : std::to_string(before)) + " after " +
                 self().seen.history);
    }
    self().seen.history += std::to_string(status);
    self().seen.losses += status == 0 ? 1 : 0;
    self().seen.status = status;
}

void expect_loss_first() {
    self().seen.may_begin_lost = true;
}

bool is_registered() {
    const std::lock_guard guard(self().seen.mutex);
    return self().seen.status == 1;
}

unsigned losses() {
    const std::lock_guard guard(self().seen.mutex);
    return self().seen.losses;
}

void forget_registration() {
    const std::lock_guard guard(self().seen.mutex);
    self().seen.status = nothing_yet;
    self().seen.history += "|";
    self().seen.results.clear();
    self().seen.calls.clear();
}

void forget_failed_start() {
    forget_registration();
    const std::lock_guard guard(self().seen.mutex);
    ++self().seen.late;
}

void count_notification() {
    const std::lock_guard guard(self().seen.mutex);
    ++self().seen.notifications;
}

unsigned notifications() {
    const std::lock_guard guard(self().seen.mutex);
    return self().seen.notifications;
}

void on_result(std::uint32_t result, std::uint32_t call_id) {
    const std::lock_guard guard(self().seen.mutex);
    if (++self().seen.results[call_id] > 1) {
        complain("the result of call " + std::to_string(call_id) + " was delivered twice");
    }
    if (result != 0) {
        complain("the result of call " + std::to_string(call_id) + " is " + std::to_string(result));
    }
}

bool has_result(std::uint32_t call_id) {
    const std::lock_guard guard(self().seen.mutex);
    return self().seen.results.contains(call_id);
}

void remember_call(std::uint32_t call_id) {
    const std::lock_guard guard(self().seen.mutex);
    if (!self().seen.calls.insert(call_id).second) {
        complain("call id " + std::to_string(call_id) + " was given twice");
    }
}

void set_handlers(scc_handlers& handlers) {
#define REPORT(member) handlers.member = reporter<decltype(handlers.member)>::call;
    SCC_RESULT_HANDLERS(REPORT)
    REPORT(efacl_ctrl)
#undef REPORT
    handlers.server_status = on_status;
    handlers.d1x_addr_move = [](std::uint32_t, const scc_address_move*) { count_notification(); };
    handlers.user_change = [](std::uint8_t, const void*, const void*) {
        count_notification();
        return 0;
    };
    handlers.offline_detect_notify = [](std::uint32_t, std::uint8_t, std::uint32_t, std::uint32_t) {
        count_notification();
    };
    handlers.station_move = [](std::uint8_t) { count_notification(); };
    handlers.flow = [](const scc_flow_user*, std::uint64_t, std::uint64_t) { count_notification(); };
    handlers.noflow_offline = [](const scc_flow_user*, std::uint64_t, std::uint64_t, const void*,
                                 std::uint32_t) { count_notification(); };
    handlers.direct_vlan_notify = [](const scc_vlan_record*) { count_notification(); };
    handlers.authmode = [](std::uint32_t) { count_notification(); };
    handlers.dirchn = [](std::uint8_t, std::uint32_t) { count_notification(); };
    handlers.port_violate_notify = [](std::uint8_t, const scc_port_violation*) { count_notification(); };
    handlers.user_roll = [](const scc_user_roll*) { count_notification(); };
    handlers.ace_counters = [](const scc_acl_key*, std::uint32_t, const scc_ace_counter*) {
        count_notification();
    };
}

}  // namespace sweep

// Replaces the platform's function: formats the line and discards it.
extern "C" int printk_syslog_ext(int /*level*/, const char* /*module*/, const char* /*submodule*/,
                                 int /*flag*/, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return length;
}
