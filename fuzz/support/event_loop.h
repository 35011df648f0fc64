// The event loop of the platform, on fake sockets. Its tasks wait until the fuzzer runs them; a timer is due
// at once.
#pragma once

namespace scc::fuzz {

// Runs the first task that is ready; returns false if there is none.
bool run_task();
[[nodiscard]] bool has_no_tasks();

}  // namespace scc::fuzz
