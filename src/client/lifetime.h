// Registrations and their threads. Each start of the library begins a generation. A thread carries the number
// of its own and checks, under the lock that it needs to act, whether a later one has begun. So
// scc_svr_unreg followed at once by scc_svr_reg leaves one working thread.
//
// Handlers run one at a time, also across registrations: a thread delivers within a delivery_turn, which
// waits until the handlers of an earlier registration have returned.
#pragma once

#include "client/locks.h"
#include "msg/protocol.h"

namespace scc {

// What keeps a start alive: a receive thread, or the tasks of an event loop.
enum class start_kind : u8 { none, thread, agent };

// Begins a registration and returns its generation; the threads that it starts carry the number.
[[nodiscard]] u32 begin_generation(start_kind kind = start_kind::thread) SCC_EXCLUDES(g_connection_mutex);
// Ends the current registration for good: its threads leave.
void end_generation() SCC_EXCLUDES(g_connection_mutex);
// What kept the registration alive ends, so another start may follow: a receive thread leaves, and sets
// state 1; an event loop's start that schedules nothing more is given up, with its state unchanged.
void leave_generation(u32 generation) SCC_EXCLUDES(g_connection_mutex);
void give_start_up(u32 generation) SCC_EXCLUDES(g_connection_mutex);

[[nodiscard]] u32 current_generation();
[[nodiscard]] bool is_current(u32 generation);
// Sets the client state for this registration; false when it has ended.
[[nodiscard]] bool set_state_of(u32 generation, u32 state) SCC_EXCLUDES(g_connection_mutex);

// The calling thread is the receive thread of this registration.
void belong_to_generation(u32 generation);
// That registration; for every other thread the current one.
[[nodiscard]] u32 generation_of_this_thread();

// Calls the server-status handler, unless the registration has ended.
void notify_status(u32 status, u32 generation) SCC_EXCLUDES(g_connection_mutex);

// While an unregistration is under way the app id is 0 but the registration has not ended yet.
// False when another one is under way or the client is not registered.
[[nodiscard]] bool begin_unregistration(u32& app_id) SCC_EXCLUDES(g_connection_mutex);
// The daemon did not agree: registered as before.
void take_unregistration_back(u32 app_id) SCC_EXCLUDES(g_connection_mutex);
void end_unregistration() SCC_EXCLUDES(g_connection_mutex);
// Waits for the outcome of an unregistration; true when the registration still exists.
[[nodiscard]] bool survives_unregistration(u32 generation) SCC_EXCLUDES(g_connection_mutex);

// One thread's turn to call handlers of a registration. A turn inside another (a handler runs an event loop,
// or registers anew) does not wait.
class delivery_turn {
  public:
    explicit delivery_turn(u32 generation) SCC_EXCLUDES(g_connection_mutex);
    ~delivery_turn() SCC_EXCLUDES(g_connection_mutex);
    delivery_turn(const delivery_turn&) = delete;
    delivery_turn& operator=(const delivery_turn&) = delete;

    // False when the registration ended before its turn came.
    [[nodiscard]] bool granted() const { return granted_; }

  private:
    bool granted_;
    bool counted_ = false;
};

namespace locked {
[[nodiscard]] start_kind living_start() SCC_REQUIRES(g_connection_mutex);
[[nodiscard]] bool is_unregistering() SCC_REQUIRES(g_connection_mutex);
[[nodiscard]] bool survives_unregistration(u32 generation) SCC_REQUIRES(g_connection_mutex);
[[nodiscard]] u32 begin_generation(start_kind kind) SCC_REQUIRES(g_connection_mutex);
}  // namespace locked

}  // namespace scc
