// The client control block: what the process is registered as, its connection, state and handlers.
//
// The fields are shared between API callers, the receive thread and the checker without a lock; each is a
// relaxed atomic of its own width. In thread mode, registration and unregistration write them under
// scc_lib_lock. Only descriptors.cpp writes the descriptors.
#pragma once

#include <atomic>

#include "msg/protocol.h"
#include "scclib.h"

namespace scc {

enum client_state : u32 {
    state_idle = 1,
    state_connecting = 2,
    state_registering = 3,
    state_registered = 4,
    state_failed = 5,
};

struct client_control_block {
    std::atomic<i32> sync_fd;
    std::atomic<i32> async_fd;
    std::atomic<u32> last_call_id;
    std::atomic<u32> app_id;
    std::atomic<u32> pid;
    char process_name[record::process_name_field];  // written by a start, only when it differs
    std::atomic<u8> option;
    std::atomic<u32> state;
    std::atomic<u8> thread_mode;
    scc_handlers handlers;  // each pointer through load_handler and store_handler
};

inline constexpr std::memory_order relaxed = std::memory_order_relaxed;

}  // namespace scc

extern "C" {
extern scc::client_control_block g_scc_client_cb;
extern std::atomic<scc::u8> scc_lib_rereg;  // 1: the receive thread treats the connection as broken

void _scc_client_state_set(scc::u32 state);
[[nodiscard]] bool _scc_lib_client_is_connected();
}

namespace scc {

[[nodiscard]] inline u32 client_state_now() {
    return g_scc_client_cb.state.load(relaxed);
}

[[nodiscard]] inline u32 app_id_now() {
    return g_scc_client_cb.app_id.load(relaxed);
}

[[nodiscard]] inline int pid_now() {
    return static_cast<int>(g_scc_client_cb.pid.load(relaxed));
}

// True after scc_svr_reg or scc_ss_reg, whose receive thread recovers; otherwise the event loop does.
[[nodiscard]] inline bool is_thread_mode() {
    return g_scc_client_cb.thread_mode.load(relaxed) == 1;
}

template <class Handler>
[[nodiscard]] inline Handler load_handler(const Handler& slot) {
    return __atomic_load_n(&slot, __ATOMIC_RELAXED);
}

template <class Handler>
inline void store_handler(Handler& slot, Handler handler) {
    __atomic_store_n(&slot, handler, __ATOMIC_RELAXED);
}

}  // namespace scc
