// SIGINT and SIGTERM as a flag, for commands that end when they are told to.
#pragma once

namespace scc::ctl {

// From now on the two signals set the flag; system calls that they interrupt fail with EINTR.
void catch_interrupts();
[[nodiscard]] bool interrupted();
void forget_interrupt();

}  // namespace scc::ctl
