#include "agent/agent_tasks.h"

#include <unistd.h>

#include <array>
#include <cstdlib>

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

}  // namespace

void set_master(void* master)
{
    const mutex_guard guard(g_tasks_lock);
    g_master = static_cast<qx_thread_master*>(master);
}

void forget_task(task_kind kind)
{
    const mutex_guard guard(g_tasks_lock);
    g_pending[kind] = nullptr;
    if (kind == task_connect) {
        g_pending_record = nullptr;
    }
}

bool is_pending(task_kind kind)
{
    const mutex_guard guard(g_tasks_lock);
    return g_pending[kind] != nullptr;
}

void cancel_all_tasks()
{
    const mutex_guard guard(g_tasks_lock);
    for (qx_thread*& task : g_pending) {
        if (task != nullptr) {
            qx_thread_cancel(task);
            task = nullptr;
        }
    }
    std::free(g_pending_record);
    g_pending_record = nullptr;
}

void schedule(task_kind kind, void* arg, int fd)
{
    while (_scc_lib_thread_event(kind, arg, fd) != 0) {
        sleep(limits::retry_seconds);
    }
}

}  // namespace scc

using namespace scc;

extern "C" i32 _scc_lib_thread_event(u32 kind, void* arg, int fd)
{
    const mutex_guard guard(g_tasks_lock);
    if (g_master == nullptr) {
        return -1;
    }
    if (kind >= task_kinds) {
        SCC_LOG("unknown lib thread event(%d).", kind);
        return 0;
    }
    const task_row& row = task_table[kind];
    qx_thread* task = row.add(arg, fd);
    if (task == nullptr) {
        SCC_LOG("%s", row.failure);
        return -1;
    }
    g_pending[kind] = task;
    if (kind == task_connect) {
        g_pending_record = arg;
    }
    return 0;
}
