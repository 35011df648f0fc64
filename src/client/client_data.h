// What the library holds for one registration: pending calls, ACL cache, batch, counters and queue.
#pragma once

extern "C" {
// Prepares all of it, before the threads of a start. Without memory for the batch it stops there.
void _scc_lib_data_init();
// Drops the pending calls and the cache: on a lost connection, and at the unregistration.
void _scc_lib_data_free();
}
