// What the three entry points that start the library share.
#pragma once

#include "msg/protocol.h"

namespace scc {

struct start_identity {
    u32 app_id;
    u8 option;
    u8 thread_mode;
};

// Whether the library runs already: logs so.
[[nodiscard]] bool is_started(u32 app_id);
// Creates the runtime directory, open to processes of any user. 0, 5 or the error.
[[nodiscard]] u32 make_runtime_directory(u32 app_id);
// As make_runtime_directory does, for everybody.
void open_runtime_directory();
// Fills the control block in and begins a registration; returns its generation.
[[nodiscard]] u32 take_identity(const start_identity& identity);
// Undoes a start whose thread could not be made.
void undo_start(void (*clear_handlers)());

[[nodiscard]] inline void* thread_argument(u32 generation) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(generation));
}

}  // namespace scc
