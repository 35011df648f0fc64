// The signals that end a program as flags, for commands that end when they are told to.
#pragma once

namespace scc::ctl {

// From now on SIGINT interrupts, and SIGTERM, SIGHUP and SIGQUIT interrupt for good; system calls that they
// interrupt fail with EINTR.
void catch_interrupts();
[[nodiscard]] bool interrupted();
// Whether the program must end.
[[nodiscard]] bool terminated();
void forget_interrupt();

}  // namespace scc::ctl
