// Ownership of the two sockets. A descriptor has one closer, which takes it out of the control block, shuts
// it down and closes it. A thread borrows it for a system call; the last borrower closes what was taken out
// meanwhile. So no number is closed twice or used after its close.
//
// An epoch identifies a connection. It increases each time one is closed and each time a registration begins.
#pragma once

#include "client/lifetime.h"
#include "msg/protocol.h"

namespace scc {

enum class channel : int { async = 0, sync = 1 };

[[nodiscard]] inline channel channel_of(int sync) {
    return sync == 1 ? channel::sync : channel::async;
}

inline constexpr u32 any_epoch = 0;

[[nodiscard]] u32 connection_epoch();

// Lends the channel's descriptor for one or a few system calls. fd() is -1 when there is none, or when the
// connection is no longer the one that the epoch names.
class borrowed_descriptor {
  public:
    explicit borrowed_descriptor(channel which, u32 epoch = any_epoch) SCC_EXCLUDES(g_connection_mutex);
    ~borrowed_descriptor() SCC_EXCLUDES(g_connection_mutex);
    borrowed_descriptor(const borrowed_descriptor&) = delete;
    borrowed_descriptor& operator=(const borrowed_descriptor&) = delete;

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] u32 epoch() const { return epoch_; }

  private:
    int fd_;
    u32 epoch_;
};

// Begins a registration, unless another start is still alive: its receive thread, a connection, or a task of
// an event loop. Only an event loop's start may replace an event loop's.
[[nodiscard]] bool claim_start(start_kind kind, u32& generation) SCC_EXCLUDES(g_connection_mutex);
[[nodiscard]] bool is_started(start_kind kind) SCC_EXCLUDES(g_connection_mutex);

// The epoch of this registration's connection, any_epoch once the registration has ended. What is borrowed
// with it is never a later registration's.
[[nodiscard]] u32 epoch_of(u32 generation) SCC_EXCLUDES(g_connection_mutex);
// Installs a connected descriptor. False, and closed, when the registration has ended.
[[nodiscard]] bool install_descriptor(channel which, int fd, u32 generation) SCC_EXCLUDES(g_connection_mutex);

// Takes both descriptors out and closes them, removes their files, sets scc_lib_rereg.
// 0; -1 when a close failed (that descriptor stays); 1 when a path cannot be formed.
[[nodiscard]] int close_descriptors() SCC_EXCLUDES(g_connection_mutex);
// The same for the named connection; false when it has ended already.
bool close_descriptors_of(u32 epoch) SCC_EXCLUDES(g_connection_mutex);
// The same with the next state, which is set before the epoch changes: a call that reads the new epoch finds
// the state that belongs to it.
bool end_connection_of(u32 epoch, u32 next_state) SCC_EXCLUDES(g_connection_mutex);
// For the receive thread: drops the connection's data, closes, state 5. False when its registration ended.
[[nodiscard]] bool reset_connection(u32 generation) SCC_EXCLUDES(g_connection_mutex);
// Makes the receive thread notice that the named connection is dead; that thread closes the descriptors.
void report_broken(u32 epoch) SCC_EXCLUDES(g_connection_mutex);
// Shuts down both sockets of the named connection: their readers get end-of-file.
void shut_down_connection(u32 epoch) SCC_EXCLUDES(g_connection_mutex);
[[nodiscard]] bool is_shut_down(u32 epoch);
// Drops the data of the named connection, unless it has ended, which drops its data.
void drop_data_of(u32 epoch) SCC_EXCLUDES(g_connection_mutex);
// State 1 during an unregistration whose send failed, unless the named connection has ended.
void set_idle_of(u32 epoch) SCC_EXCLUDES(g_connection_mutex);

}  // namespace scc
