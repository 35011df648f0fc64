// See lifetime.h.
#include "client/lifetime.h"

#include <atomic>

#include "client/control_block.h"
#include "client/locks.h"

namespace scc {

constinit mutex g_connection_mutex;

namespace {

// Written under g_connection_mutex, and read without it.
constinit std::atomic<u32> g_generation{0};
constinit start_kind g_living_start SCC_GUARDED_BY(g_connection_mutex) = start_kind::none;
constinit bool g_unregistering SCC_GUARDED_BY(g_connection_mutex) = false;
// The turns under way, all of one generation.
constinit u32 g_turns SCC_GUARDED_BY(g_connection_mutex) = 0;
constinit u32 g_turns_generation SCC_GUARDED_BY(g_connection_mutex) = 0;

// Signalled when a turn, an unregistration or a generation ends.
constinit pthread_cond_t g_lifetime_changed = PTHREAD_COND_INITIALIZER;

[[gnu::tls_model("initial-exec")]] thread_local constinit u32 t_turns = 0;
[[gnu::tls_model("initial-exec")]] thread_local constinit u32 t_generation = 0;  // of a receive thread

}  // namespace

namespace locked {

start_kind living_start() {
    return g_living_start;
}

bool is_unregistering() {
    return g_unregistering;
}

u32 begin_generation(start_kind kind) {
    g_living_start = kind;
    const u32 generation = g_generation.load(relaxed) + 1;
    g_generation.store(generation, relaxed);
    pthread_cond_broadcast(&g_lifetime_changed);
    return generation;
}

bool survives_unregistration(u32 generation) {
    while (g_unregistering && is_current(generation)) {
        pthread_cond_wait(&g_lifetime_changed, &g_connection_mutex.handle);
    }
    return is_current(generation);
}

}  // namespace locked

u32 begin_generation(start_kind kind) {
    const mutex_guard guard(g_connection_mutex);
    return locked::begin_generation(kind);
}

void end_generation() {
    const mutex_guard guard(g_connection_mutex);
    (void)locked::begin_generation(start_kind::none);
}

void leave_generation(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    if (is_current(generation)) {
        g_living_start = start_kind::none;
        _scc_client_state_set(state_idle);
    }
}

void give_start_up(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    if (is_current(generation)) {
        g_living_start = start_kind::none;
    }
}

u32 current_generation() {
    return g_generation.load(relaxed);
}

bool is_current(u32 generation) {
    return g_generation.load(relaxed) == generation;
}

void belong_to_generation(u32 generation) {
    t_generation = generation;
}

u32 generation_of_this_thread() {
    return t_generation != 0 ? t_generation : current_generation();
}

bool set_state_of(u32 generation, u32 state) {
    const mutex_guard guard(g_connection_mutex);
    if (!is_current(generation)) {
        return false;
    }
    _scc_client_state_set(state);
    return true;
}

void notify_status(u32 status, u32 generation) {
    const delivery_turn turn(generation);
    if (!turn.granted()) {
        return;
    }
    const auto handler = load_handler(g_scc_client_cb.handlers.server_status);
    if (handler != nullptr) {
        handler(status);
    }
}

bool begin_unregistration(u32& app_id) {
    const mutex_guard guard(g_connection_mutex);
    if (g_unregistering || client_state_now() != state_registered) {
        return false;
    }
    // The flag before the id: once the id is 0, the receive thread waits for the outcome.
    g_unregistering = true;
    app_id = app_id_now();
    g_scc_client_cb.app_id.store(0, relaxed);
    return true;
}

void take_unregistration_back(u32 app_id) {
    const mutex_guard guard(g_connection_mutex);
    g_scc_client_cb.app_id.store(app_id, relaxed);
    // A failed send may have reset the state although the connection still stands.
    if (client_state_now() == state_idle && _scc_lib_client_is_connected()) {
        _scc_client_state_set(state_registered);
    }
    g_unregistering = false;
    pthread_cond_broadcast(&g_lifetime_changed);
}

void end_unregistration() {
    const mutex_guard guard(g_connection_mutex);
    g_unregistering = false;
    pthread_cond_broadcast(&g_lifetime_changed);
}

bool survives_unregistration(u32 generation) {
    const mutex_guard guard(g_connection_mutex);
    return locked::survives_unregistration(generation);
}

delivery_turn::delivery_turn(u32 generation) : granted_(false) {
    if (t_turns++ != 0) {
        granted_ = is_current(generation);
        return;
    }
    const mutex_guard guard(g_connection_mutex);
    while (g_turns != 0 && g_turns_generation != generation && is_current(generation)) {
        pthread_cond_wait(&g_lifetime_changed, &g_connection_mutex.handle);
    }
    if (is_current(generation)) {
        g_turns_generation = generation;
        ++g_turns;
        granted_ = counted_ = true;
    }
}

delivery_turn::~delivery_turn() {
    --t_turns;
    if (!counted_) {
        return;
    }
    const mutex_guard guard(g_connection_mutex);
    if (--g_turns == 0) {
        pthread_cond_broadcast(&g_lifetime_changed);
    }
}

}  // namespace scc
