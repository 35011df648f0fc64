// See control_block.h.
#include "client/control_block.h"

#include "client/locks.h"

using namespace scc;

extern "C" {

constinit pthread_rwlock_t scc_lib_lock = PTHREAD_RWLOCK_INITIALIZER;

constinit client_control_block g_scc_client_cb = {
    {-1}, {-1}, {0}, {0}, {0}, {}, {0}, {state_idle}, {0}, {},
};
constinit std::atomic<u8> scc_lib_rereg{0};

void _scc_client_state_set(u32 state) {
    g_scc_client_cb.state.store(state, relaxed);
}

bool _scc_lib_client_is_connected() {
    return g_scc_client_cb.sync_fd.load(relaxed) >= 0 && g_scc_client_cb.async_fd.load(relaxed) >= 0;
}
}
