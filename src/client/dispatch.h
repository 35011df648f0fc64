// Routes the items of one received message, in the order of the wire.
#pragma once

#include "msg/protocol.h"

extern "C" void _scc_lib_async_msg_proc(scc::u32 count, const void* first);
