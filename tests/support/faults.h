// Makes one call of a kind fail: the Nth from now on, with an error number. Calls of the whole process are
// counted, so a test switches a fault on right before the act and off after it.
#pragma once

namespace test {

enum class call {
    malloc,
    calloc,
    socket,
    bind,
    connect,
    setsockopt,
    send,
    recv,
    poll,
    select,
    close,
    pthread_create,
    mkdir,
    count
};

// The Nth call (from 1) of this kind fails once with this errno. Memory calls return null; a send whose
// error is 0 moves nothing.
void fail_call(call which, int nth, int error);
// Every call of the kind fails from the Nth on.
void fail_calls_from(call which, int nth, int error);
// Either memory call: the Nth allocation of the process fails.
void fail_allocation(int nth);
// Every allocation of exactly that many bytes fails, until the faults end.
void fail_allocations_of(int bytes);
// Does this inside the next call of the kind, before what the call does.
void on_call(call which, void (*act)());
// Does this once, before the library sets the client state, or frees the pending calls, the next time.
void on_state_set(void (*act)());
void on_calls_freed(void (*act)());
// Ends all faults; returns whether one was met.
bool end_faults();
// How often the kind was called since the last end_faults or fail_*.
int calls(call which);
// Threads that are created from now on run from release_new_threads on.
void hold_new_threads();
void release_new_threads();
// send and recv move at most that many bytes a call; 0 for no limit.
void limit_transfer(int bytes);

}  // namespace test
