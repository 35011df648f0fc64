#include "agent/agent_tasks.h"

#include <unistd.h>

#include <array>
#include <cstdlib>

#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/locks.h"
#include "client/log.h"

namespace scc {
namespace {

constinit pthread_mutex_t g_tasks_lock = PTHREAD_MUTEX_INITIALIZER;
// All guarded by g_tasks_lock.
constinit qx_thread_master* g_master = nullptr;
constinit std::array<qx_thread*, task_kinds> g_pending{};
constinit void* g_pending_record = nullptr;  // of a connect task that has not run

struct task_row {
    qx_thread* (*add)(void* arg, int fd);
    const char* failure;
};

constexpr std::array<task_row, task_kinds> task_table = {{
    {[](void* arg, int) {
         return qx_thread_add_event_withname(g_master, _scc_lib_agent_connect, arg, 0, "scc-connect");
     },
     "Failed to add qx_thread for scc_lib_connect"},
    {[](void*, int) {
         return qx_thread_add_timer_withname(g_master, _scc_lib_agent_reconnect, nullptr,
                                             limits::reconnect_timer, "scc-reconnect");
     },
     "Failed to add qx_thread for scc_lib_reconnect"},
    {[](void*, int fd) {
         return qx_thread_add_read_high_withname(g_master, _scc_lib_agent_read, nullptr, fd, "scc-read");
     },
     "Failed to add qx_thread for scc_lib_read"},
    {[](void* arg, int fd) {
         return qx_thread_add_write_withname(g_master, _scc_lib_agent_write, arg, fd, "scc-write");
     },
     "Failed to add qx_thread for scc_lib_write"},
}};

// Under g_tasks_lock.
void cancel_pending() {
    for (qx_thread*& task : g_pending) {
        if (task != nullptr) {
            qx_thread_cancel(task);
            task = nullptr;
        }
    }
    std::free(g_pending_record);
    g_pending_record = nullptr;
}

// Under g_tasks_lock.
bool add_task(u32 kind, void* arg, int fd) {
    const task_row& row = task_table[kind];
    qx_thread* task = row.add(arg, fd);
    if (task == nullptr) {
        SCC_LOG("%s", row.failure);
        return false;
    }
    g_pending[kind] = task;
    if (kind == task_connect) {
        g_pending_record = arg;
    }
    return true;
}

// Under g_tasks_lock. An unregistration clears the app id before it cancels, and closes behind that.
bool is_wanted(u32 epoch) {
    return epoch == connection_epoch() && g_scc_client_cb.app_id.load(relaxed) != 0;
}

// False when it has to be tried again.
bool try_schedule(task_kind kind, u32 epoch) {
    const mutex_guard guard(g_tasks_lock);
    return !is_wanted(epoch) || add_task(kind, nullptr, g_scc_client_cb.async_fd.load(relaxed));
}

void schedule_for(task_kind kind, u32 epoch) {
    while (!try_schedule(kind, epoch)) {
        sleep(limits::retry_seconds);
    }
}

}  // namespace

void set_master(void* master) {
    const mutex_guard guard(g_tasks_lock);
    g_master = static_cast<qx_thread_master*>(master);
}

void forget_task(task_kind kind) {
    const mutex_guard guard(g_tasks_lock);
    g_pending[kind] = nullptr;
    if (kind == task_connect) {
        g_pending_record = nullptr;
    }
}

bool is_pending(task_kind kind) {
    const mutex_guard guard(g_tasks_lock);
    return g_pending[kind] != nullptr;
}

void cancel_all_tasks() {
    const mutex_guard guard(g_tasks_lock);
    cancel_pending();
}

bool end_connection(u32 epoch, u32& after) {
    const mutex_guard guard(g_tasks_lock);
    if (!is_wanted(epoch)) {
        return false;
    }
    cancel_pending();
    if (!end_connection_of(epoch, state_idle)) {
        return false;
    }
    after = connection_epoch();
    return true;
}

void schedule_connect(void* record) {
    while (_scc_lib_thread_event(task_connect, record, -1) != 0) {
        sleep(limits::retry_seconds);
    }
}

void schedule_reconnect(u32 epoch) {
    schedule_for(task_reconnect, epoch);
}

void schedule_read(u32 epoch) {
    schedule_for(task_read, epoch);
}

}  // namespace scc

using namespace scc;

extern "C" i32 _scc_lib_thread_event(u32 kind, void* arg, int fd) {
    const mutex_guard guard(g_tasks_lock);
    if (g_master == nullptr) {
        return -1;
    }
    if (kind >= task_kinds) {
        SCC_LOG("unknown lib thread event(%d).", kind);
        return 0;
    }
    return add_task(kind, arg, fd) ? 0 : -1;
}
