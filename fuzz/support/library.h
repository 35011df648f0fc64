// The library's internals that the fuzzers need: a registered state without threads, and a complete clean-up.
#pragma once

#include "msg/protocol.h"

namespace scc::fuzz {

// Must be called once in a process. Returns true, for the initialiser of a static.
bool prepare_library();
// State 4 on two connected descriptors, as application 7 with reading_handlers().
void register_by_hand(int async_fd, int sync_fd, u8 option);
// The same as the service, with the installed handlers.
void register_service_by_hand(int async_fd, int sync_fd);
// Closes both and drops what a connection leaves, so that no input affects the next.
void unregister_by_hand();
// Blocks that the library keeps for later requests.
void drop_spare_blocks();

}  // namespace scc::fuzz
