// An act inside the cancelling of a task; loop_faults.cpp.
#pragma once

namespace test {

// Does this once, before the next task is cancelled.
void on_cancel(void (*act)());

}  // namespace test
