// Shared by the three entry points that start the library.
#pragma once

#include "client/lifetime.h"
#include "msg/protocol.h"

namespace scc {

struct start_identity {
    u32 app_id;
    u8 option;
    start_kind kind;
};

// These log in the name of the exported call that function names.

// Whether an earlier start is still alive, so that this one has nothing to do.
[[nodiscard]] bool is_already_started(const start_identity& identity, const char* function);
// Creates the runtime directory unless it exists. 0, 5 or the error.
[[nodiscard]] u32 make_runtime_directory(u32 app_id, const char* function);
// Opens it to processes of any user, even if an earlier process narrowed its mode.
void open_runtime_directory();
// Begins a registration and fills in the control block. False, with nothing changed, when another start came
// first.
[[nodiscard]] bool take_identity(const start_identity& identity, u32& generation, const char* function);
// Undoes a start whose thread could not be created.
void undo_start(void (*clear_handlers)());

[[nodiscard]] inline void* thread_argument(u32 generation) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(generation));
}

}  // namespace scc
