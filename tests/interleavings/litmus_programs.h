// Programs whose outcome is known, for the tests of the driver itself.
#pragma once

#include "program.h"

namespace interleavings {

struct litmus {
    static const program counted;
    static const program independent;
    static const program update;
    static const program buffering_relaxed;
    static const program buffering_seq_cst;
    static const program passing;
    static const program passing_relaxed_store;
    static const program passing_relaxed_load;
    static const program plain_passing;
    static const program plain_passing_relaxed;
    static const program coherent;
    static const program inversion;
    static const program waiting;
    static const program waiting_without_lock;
    static const program waiting_without_loop;
    static const program freed;
    static const program endless;
    static const program endless_without_operations;
    static const program failing_in_the_end;
};

}  // namespace interleavings
