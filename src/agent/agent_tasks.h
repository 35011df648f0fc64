// The agent's tasks on the application's event loop: scheduling, taking and cancelling them.
//
// The library keeps a record of each pending task, with its argument, and one lock guards them; it is held
// from before a task is added until its record is stored: a task that runs at once on the loop's thread,
// while another thread adds it, finds its record. The loop's thread and requests of other threads may both
// end a connection: the one that comes first does it under that lock, whole, so that nobody cancels the
// reconnection of somebody else or adds a read task on a descriptor that was closed meanwhile. The lock of
// the descriptors is taken inside it.
#pragma once

#include <qx_thread.h>

#include "client/control_block.h"
#include "msg/protocol.h"

namespace scc {

enum task_kind : u32 { task_connect = 0, task_reconnect = 1, task_read = 2, task_write = 3, task_kinds = 4 };

// The argument of a write task: u32 message type, u32 value length, the value. Freed by the task when it
// runs; cancelled, it stays with whoever has scheduled it.
struct write_request {
    u32 type;
    u32 value_bytes;

    [[nodiscard]] const u8* value() const { return reinterpret_cast<const u8*>(this) + sizeof *this; }
};

void set_master(void* master);

// A task that runs: its argument is its own to free.
struct running_task {
    bool found;      // false when it was cancelled while the event loop was about to run it
    void* argument;  // null for the kinds without one
    u32 generation;  // of the registration that it was scheduled for
    u32 epoch;       // of the connection then
};

// For a task's first act: takes its record, so that no recovery cancels it any more. A null task stands for
// whichever one of the kind is pending, if any.
[[nodiscard]] running_task take_task(task_kind kind, const qx_thread* task);
[[nodiscard]] bool is_pending(task_kind kind);
// Cancels what is pending; a connect task that never ran gives its record back.
void cancel_all_tasks();
// Cancels what is pending, closes the named connection and sets the state, once. False when it has gone
// already or the application unregisters; otherwise after is the epoch that the closing began.
[[nodiscard]] bool end_connection(u32 epoch, u32& after, u32 next_state = state_idle);

// These schedule again every 2 seconds until it has succeeded. The loop is blocked for that time.
// The connect task, which frees the record.
void schedule_connect(void* record);
// The reconnect timer, or reading the asynchronous socket: unless the connection (for the timer: the
// disconnected period after it) is not the named one any more, or the application unregisters.
void schedule_reconnect(u32 epoch);
void schedule_read(u32 epoch);

}  // namespace scc

extern "C" {
[[nodiscard]] scc::i32 _scc_lib_thread_event(scc::u32 kind, void* arg, int fd);
int _scc_lib_agent_connect(struct qx_thread* task);
int _scc_lib_agent_reconnect(struct qx_thread* task);
int _scc_lib_agent_read(struct qx_thread* task);
int _scc_lib_agent_write(struct qx_thread* task);
}
