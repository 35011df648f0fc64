// What the scenarios share: the daemon, waits, and what handlers report.
//
// With a fault, a call may fail and a result may never come, so waits are short once the fault has struck.
// Every call of the library must return.
#pragma once

#include <scclib.h>

#include <functional>
#include <string>

#include "sweep/peer.h"

namespace sweep {

// How long a call of the library may take, a proof may wait, and a whole run may last.
inline constexpr int call_bound_seconds = 40;
inline constexpr int proof_bound_seconds = 60;
inline constexpr int run_bound_seconds = 300;

// Prints a finding; the run has then failed.
void complain(const std::string& what);
[[nodiscard]] bool has_failed();

peer& the_daemon();
void begin_life(const std::string& directory);

[[nodiscard]] bool is_proving();
void begin_proof();

// Makes the call and returns its result; a call that lasts too long ends the process.
std::uint32_t timed(const char* name, const std::function<std::uint32_t()>& call);
// Like timed, while the fault may strike: any documented result is accepted, but without a fault only 0.
std::uint32_t attempt(const char* name, const std::function<std::uint32_t()>& call);
// Like timed, but requires this result.
void require(const char* name, const std::function<std::uint32_t()>& call, std::uint32_t expected = 0);

// Waits for the condition. Complains if it is not met in time, unless a fault has struck.
bool wait_for(const char* what, const std::function<bool()>& condition);
bool wait_at_most(int milliseconds, const std::function<bool()>& condition);

// ---- what handlers report ----

// For server_status: one 0 for each loss, one 1 for each registration, never the same twice.
void on_status(std::uint32_t status);
// A failed first attempt in event-loop mode is reported as a loss.
void expect_loss_first();
[[nodiscard]] bool is_registered();
// How often the daemon was lost.
[[nodiscard]] unsigned losses();
// Must be called after the registration has ended: the next status must be 1, and call ids restart.
void forget_registration();
// The same after a start that failed: threads that it had started may have registered for a moment, and the
// report of that may come late.
void forget_failed_start();

void count_notification();
[[nodiscard]] unsigned notifications();

// Asynchronous results: each call id at most once.
void on_result(std::uint32_t result, std::uint32_t call_id);
[[nodiscard]] bool has_result(std::uint32_t call_id);
void remember_call(std::uint32_t call_id);

// Sets all result and notification handlers of an application.
void set_handlers(scc_handlers& handlers);

}  // namespace sweep
