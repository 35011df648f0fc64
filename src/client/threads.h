// Starting and naming the library's threads.
#pragma once

#include "msg/protocol.h"

namespace scc {

using thread_body = void* (*)(void*);

// Starts a thread that blocks every signal, so that the host's signal handlers run on the host's own
// threads. 0 or an error number.
[[nodiscard]] u32 start_thread(thread_body body, void* argument);

// Each thread calls this, or the next, first: detaches and names it.
void detach_and_name(const char* name);
// The name of the application side's threads: "scclib-" and the pid.
void detach_and_name_with_pid();

}  // namespace scc
