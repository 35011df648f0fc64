// What the three entry points that start the library share.
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

// Whether something of a start lives, so that this one has nothing to do.
[[nodiscard]] bool is_already_started(const start_identity& identity, const char* function);
// Creates the runtime directory, open to processes of any user. 0, 5 or the error.
[[nodiscard]] u32 make_runtime_directory(u32 app_id, const char* function);
// As make_runtime_directory does, for everybody.
void open_runtime_directory();
// Begins a registration and fills the control block in. False, with nothing changed, when another start came
// first.
[[nodiscard]] bool take_identity(const start_identity& identity, u32& generation, const char* function);
// Undoes a start whose thread could not be made.
void undo_start(void (*clear_handlers)());

[[nodiscard]] inline void* thread_argument(u32 generation) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(generation));
}

}  // namespace scc
