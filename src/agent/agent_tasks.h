// The agent's four tasks on the application's event loop: scheduling, forgetting and cancelling them.
//
// One lock guards the handles, and is held from before a task is added until its handle is stored: a task
// that runs at once on the loop's thread, while another thread adds it, finds its handle there. The loop's
// thread, the checker and requests of other threads may all end a connection: the one that comes first does
// it under that lock, whole, so that nobody cancels the reconnection of somebody else or adds a read task
// on a descriptor that was closed meanwhile. The lock of the descriptors is taken inside it.
#pragma once

#include <qx_thread.h>

#include "msg/protocol.h"
#include "scclib.h"

namespace scc {

enum task_kind : u32 { task_connect = 0, task_reconnect = 1, task_read = 2, task_write = 3, task_kinds = 4 };

// The argument of a write task: u32 message type, u32 value length, the value. Freed by the task.
struct write_request {
    u32 type;
    u32 value_bytes;

    [[nodiscard]] const u8* value() const { return reinterpret_cast<const u8*>(this) + sizeof *this; }
};

void set_master(void* master);
// For a task's first act.
void forget_task(task_kind kind);
[[nodiscard]] bool is_pending(task_kind kind);
// Cancels what is pending; a connect task that never ran gives its record back.
void cancel_all_tasks();
// Cancels what is pending, closes the named connection and sets the state back, once. False when it has
// gone already or the application unregisters; otherwise after is the epoch that the closing began.
[[nodiscard]] bool end_connection(u32 epoch, u32& after);

// These schedule again every 2 seconds until it has succeeded. The loop is blocked for that time.
void schedule_connect(void* record);
// The reconnect timer, or reading the asynchronous socket: unless the connection (for the timer: the gap
// behind it) is not the named one any more, or the application unregisters.
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
