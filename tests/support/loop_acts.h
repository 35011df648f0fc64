// An act before a task is cancelled; see loop_faults.cpp.
#pragma once

namespace test {

// Runs `act` once, before the next task is cancelled.
void on_cancel(void (*act)());

}  // namespace test
