// The receive thread: one loop, which delivers to handlers or to the service's queue.
#pragma once

#include "client/results.h"
#include "msg/protocol.h"

namespace scc {

// Takes ownership of a received message. Results may wait in the run until everything received is delivered.
using deliver_message = void (*)(i32 fd, void* message, result_run& results);

struct delivery {
    const char* thread;  // the thread's function, named in its log lines
    deliver_message message;
    void (*idle)();  // called when nothing came for a while; null for nothing to do
};

// Registers, then receives until the registration has ended.
void run_receive_loop(u32 generation, const delivery& how);

// For applications: dispatches the items, then frees the message.
void dispatch_and_free(i32 fd, void* message, result_run& results);

}  // namespace scc

extern "C" void* _scc_lib_thread(void* generation);
