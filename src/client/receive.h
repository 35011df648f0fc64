// The receive thread: one loop with two ways to deliver, to handlers or to the service's queue.
#pragma once

#include "client/results.h"
#include "msg/protocol.h"

namespace scc {

// Takes over a whole received message. Results may wait in the run until all that has arrived was delivered.
using deliver_message = void (*)(i32 fd, void* message, result_run& results);

struct delivery {
    const char* thread;  // the thread's function, in whose name it logs
    deliver_message message;
    void (*idle)();  // called when nothing came for a while; null for nothing to do
};

// Registers, then receives until the registration has ended.
void run_receive_loop(u32 generation, const delivery& how);

// An application's way: the dispatcher, then the message is freed.
void dispatch_and_free(i32 fd, void* message, result_run& results);

}  // namespace scc

extern "C" void* _scc_lib_thread(void* generation);
