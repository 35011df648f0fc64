// What the scenarios share: the daemon, patient waits, and what handlers report.
//
// While the fault may strike, a call may fail and a result may never come, so waits are short once the fault
// was met. A call of the library must return in any case.
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

// A finding: printed, and the run has failed.
void complain(const std::string& what);
[[nodiscard]] bool has_failed();

peer& the_daemon();
void begin_life(const std::string& directory);

[[nodiscard]] bool is_proving();
void begin_proof();

// Makes the call and returns its result; a call that lasts too long ends the process.
std::uint32_t timed(const char* name, const std::function<std::uint32_t()>& call);
// As timed, while the fault may strike: any documented result will do, but only 0 without a fault.
std::uint32_t attempt(const char* name, const std::function<std::uint32_t()>& call);
// As timed, with this result.
void require(const char* name, const std::function<std::uint32_t()>& call, std::uint32_t expected = 0);

// Waits until it holds. Complains when it does not, unless a fault is in the way.
bool wait_for(const char* what, const std::function<bool()>& condition);
bool wait_at_most(int milliseconds, const std::function<bool()>& condition);

// ---- what handlers report ----

// For server_status: one 0 for each loss, one 1 for each registration, never twice the same.
void on_status(std::uint32_t status);
// An event loop's first attempt that fails is reported as a loss.
void expect_loss_first();
[[nodiscard]] bool is_registered();
// How often the daemon was lost.
[[nodiscard]] unsigned losses();
// After the registration has ended: the next status must be 1, and call ids begin again.
void forget_registration();

void count_notification();
[[nodiscard]] unsigned notifications();

// Asynchronous results: each call id at most once.
void on_result(std::uint32_t result, std::uint32_t call_id);
[[nodiscard]] bool has_result(std::uint32_t call_id);
void remember_call(std::uint32_t call_id);

// All result handlers of an application, and those for notifications.
void set_handlers(scc_handlers& handlers);

}  // namespace sweep
