// Routes the items of one received message, in the order of the wire.
#pragma once

#include "client/results.h"
#include "msg/protocol.h"

extern "C" void _scc_lib_async_msg_proc(scc::u32 count, const void* first);

namespace scc {

// The same, but leaves results at the end of the message in `results`, for the caller to deliver or for those
// of the next message to join.
void dispatch_items(u16 count, const void* first, result_run& results);

}  // namespace scc
