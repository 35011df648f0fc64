// Ownership of the two sockets. A descriptor has one closer, who takes it out of the control block, shuts
// it down and closes it; whoever is inside a system call on it has borrowed it, and the last borrower
// closes what was taken out meanwhile. So no number is closed twice and none is used after its close.
//
// Connections are told apart by an epoch, which goes up each time one is closed, and registrations by a
// generation: a thread of an earlier registration finds out under the same lock under which it would act.
#pragma once

#include "msg/protocol.h"

namespace scc {

enum class channel : int { async = 0, sync = 1 };

[[nodiscard]] inline channel channel_of(int sync) {
    return sync == 1 ? channel::sync : channel::async;
}

inline constexpr u32 any_epoch = 0;

[[nodiscard]] u32 connection_epoch();

// Lends the channel's descriptor for one system call or a few. fd() is -1 when there is none, or when the
// connection is no longer the one that the epoch names.
class borrowed_descriptor {
  public:
    explicit borrowed_descriptor(channel which, u32 epoch = any_epoch);
    ~borrowed_descriptor();
    borrowed_descriptor(const borrowed_descriptor&) = delete;
    borrowed_descriptor& operator=(const borrowed_descriptor&) = delete;

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] u32 epoch() const { return epoch_; }

  private:
    int fd_;
    u32 epoch_;
};

// Begins a registration; the threads that it starts carry the number.
[[nodiscard]] u32 begin_generation();
// Ends the current registration for good: its threads leave.
void end_generation();
[[nodiscard]] bool is_current(u32 generation);
[[nodiscard]] u32 current_generation();
// The epoch of this registration's connection, any_epoch once the registration has ended. What is borrowed
// with it is never a later registration's.
[[nodiscard]] u32 epoch_of(u32 generation);
// Sets the client state for this registration; false when it has ended.
[[nodiscard]] bool set_state_of(u32 generation, u32 state);

// Hands a connected descriptor over. False, and closed, when the registration has ended.
[[nodiscard]] bool install_descriptor(channel which, int fd, u32 generation);

// Takes both descriptors out and closes them, removes their files, raises scc_lib_rereg.
// 0; -1 when a close failed (that descriptor stays); 1 when a path cannot be formed.
[[nodiscard]] int close_descriptors();
// The same for a connection that is named; false when it has gone already.
bool close_descriptors_of(u32 epoch);
// The same with the state that follows. It is set before the epoch changes: a call that reads the new
// epoch finds the state that goes with it.
bool end_connection_of(u32 epoch, u32 next_state);
// For the receive thread: drops the connection's data, closes, state 5. False when its registration ended.
[[nodiscard]] bool reset_connection(u32 generation);
// Makes the receive thread notice that the named connection is dead; the descriptors stay its own.
void report_broken(u32 epoch);

// Calls the server-status handler, unless the registration has ended.
void notify_status(u32 status, u32 generation);

// While an unregistration is under way the app id is 0 but the registration has not ended yet.
// Waits for the outcome; true when the registration is still there.
[[nodiscard]] bool survives_unregistration(u32 generation);
void unregistration_begins();
void unregistration_is_over();

}  // namespace scc
