// Makes one call of a kind fail: the Nth from now on, with an error number. The calls of the whole process
// count, so a test sets a fault right before the act and ends it right after.
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
    malloc_trim,
    trywrlock,
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
// Runs `act` inside the next call of the kind, before the call itself.
void on_call(call which, void (*act)());
// Runs `act` once, before the library next sets the client state or frees the pending calls.
void on_state_set(void (*act)());
void on_calls_freed(void (*act)());
// Ends all faults; returns whether one occurred.
bool end_faults();
// The most descriptors that one poll has watched since the last end_faults.
int most_polled();
// How often the kind was called since the last end_faults or fail_*.
int calls(call which);
// Threads created from now on do not run before release_new_threads.
void hold_new_threads();
void release_new_threads();
// The blocks that the library and the tests hold: taken with malloc or calloc and not freed.
long live_blocks();
// send and recv move at most that many bytes a call; 0 for no limit.
void limit_transfer(int bytes);

}  // namespace test
