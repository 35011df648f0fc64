// The agent's tasks on the application's event loop: scheduling, taking and cancelling them.
//
// The library keeps a record of each pending task, with its argument. One lock guards the records; it is held
// from before a task is added until its record is stored, so a task that runs at once on the loop's thread
// finds its record. The loop's thread and requests of other threads may both end a connection: the first does
// it entirely under that lock, so no thread cancels another's reconnection or adds a read task on a closed
// descriptor. g_connection_mutex is taken inside it.
#pragma once

#include <qx_thread.h>

#include "client/control_block.h"
#include "msg/protocol.h"

namespace scc {

enum task_kind : u32 { task_connect = 0, task_reconnect = 1, task_read = 2, task_write = 3, task_kinds = 4 };

// The argument of a write task: u32 message type, u32 value length, the value. The task frees it when it
// runs; after a cancellation the scheduling caller still owns it.
struct write_request {
    u32 type;
    u32 value_bytes;

    [[nodiscard]] const u8* value() const { return reinterpret_cast<const u8*>(this) + sizeof *this; }
};

void set_master(void* master);

// A running task, which owns its argument.
struct running_task {
    bool found;      // false when it was cancelled while the event loop was about to run it
    void* argument;  // null for the kinds without one
    u32 generation;  // of the registration that it was scheduled for
    u32 epoch;       // of the connection then
};

// Each task calls this first: without a record, no recovery can cancel it. A null task means any pending one
// of the kind.
[[nodiscard]] running_task take_task(task_kind kind, const qx_thread* task);
[[nodiscard]] bool is_pending(task_kind kind);
// Cancels all pending tasks and frees the argument of a connect task that never ran.
void cancel_all_tasks();
// Cancels all pending tasks, closes the named connection and sets the state, once. False when it has ended
// already or the application unregisters; otherwise after is the epoch that follows the connection.
[[nodiscard]] bool end_connection(u32 epoch, u32& after, u32 next_state = state_idle);

// These retry every 2 seconds until scheduling succeeds, and block the loop meanwhile.
// The connect task, which frees the record.
void schedule_connect(void* record);
// The reconnect timer, or the read task of the asynchronous socket, unless the named connection (for the
// timer: the disconnected period after it) has ended or the application unregisters.
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
