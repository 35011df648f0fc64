// The library's insides as far as fuzzers need them: a state without threads, and its end without a rest.
#pragma once

#include "msg/protocol.h"

namespace scc::fuzz {

// Once a process. True, for a static.
bool prepare_library();
// State 4 on two connected descriptors, as application 7 with reading_handlers().
void register_by_hand(int async_fd, int sync_fd, u8 option);
// The same as the service, with the handlers that were installed.
void register_service_by_hand(int async_fd, int sync_fd);
// Closes both and drops what a connection leaves; nothing of an input reaches the next.
void unregister_by_hand();
// Blocks that the library keeps for later requests.
void drop_spare_blocks();

}  // namespace scc::fuzz
