#include "agent/agent_tasks.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "client/descriptors.h"
#include "client/locks.h"
#include "client/log.h"
#include "util/list.h"

namespace scc {
namespace {

constexpr const char* function = "_scc_lib_thread_event";

struct task_record {
    list_node link;
    qx_thread* handle;
    u32 kind;
    u32 generation;
    u32 epoch;
    void* argument;
};

constinit mutex g_tasks_lock SCC_ACQUIRED_BEFORE(g_connection_mutex);
constinit qx_thread_master* g_master SCC_GUARDED_BY(g_tasks_lock) = nullptr;
// Of task_record, oldest first.
constinit list_node g_tasks SCC_GUARDED_BY(g_tasks_lock){&g_tasks, &g_tasks};
// The most recently cancelled handles.
constinit std::array<const qx_thread*, 16> g_cancelled SCC_GUARDED_BY(g_tasks_lock){};
constinit std::size_t g_cancellations SCC_GUARDED_BY(g_tasks_lock) = 0;

struct task_row {
    qx_thread* (*add)(void* arg, int fd);
    const char* failure;
};

constexpr std::array<task_row, task_kinds> task_table = {{
    {[](void* arg, int) SCC_REQUIRES(g_tasks_lock) {
         return qx_thread_add_event_withname(g_master, _scc_lib_agent_connect, arg, 0, "scc-connect");
     },
     "Failed to add qx_thread for scc_lib_connect"},
    {[](void*, int) SCC_REQUIRES(g_tasks_lock) {
         return qx_thread_add_timer_withname(g_master, _scc_lib_agent_reconnect, nullptr,
                                             limits::reconnect_timer, "scc-reconnect");
     },
     "Failed to add qx_thread for scc_lib_reconnect"},
    {[](void*, int fd) SCC_REQUIRES(g_tasks_lock) {
         return qx_thread_add_read_high_withname(g_master, _scc_lib_agent_read, nullptr, fd, "scc-read");
     },
     "Failed to add qx_thread for scc_lib_read"},
    {[](void* arg, int fd) SCC_REQUIRES(g_tasks_lock) {
         return qx_thread_add_write_withname(g_master, _scc_lib_agent_write, arg, fd, "scc-write");
     },
     "Failed to add qx_thread for scc_lib_write"},
}};

task_record* record_of(list_node* link) {
    return reinterpret_cast<task_record*>(link);
}

template <class Predicate>
task_record* find_task(Predicate matches) SCC_REQUIRES(g_tasks_lock) {
    for (list_node* link = g_tasks.next; link != &g_tasks; link = link->next) {
        if (matches(*record_of(link))) {
            return record_of(link);
        }
    }
    return nullptr;
}

// A platform may run a task with an object other than the handle that it returned; take that for the oldest
// task of the kind. A cancelled handle, however, belongs to a task that the event loop was about to run.
task_record* find_running(u32 kind, const qx_thread* task) SCC_REQUIRES(g_tasks_lock) {
    task_record* record =
        find_task([&](const task_record& each) { return each.kind == kind && each.handle == task; });
    if (record == nullptr && (task == nullptr || std::ranges::find(g_cancelled, task) == g_cancelled.end())) {
        record = find_task([&](const task_record& each) { return each.kind == kind; });
    }
    return record;
}

void forget(task_record* record) SCC_REQUIRES(g_tasks_lock) {
    list_del(&record->link);
    std::free(record);
}

void cancel_pending() SCC_REQUIRES(g_tasks_lock) {
    while (!list_empty(&g_tasks)) {
        task_record* record = record_of(g_tasks.next);
        qx_thread_cancel(record->handle);
        g_cancelled[g_cancellations++ % g_cancelled.size()] = record->handle;
        if (record->kind == task_connect) {
            std::free(record->argument);
        }
        forget(record);
    }
}

bool add_task(u32 kind, void* arg, int fd) SCC_REQUIRES(g_tasks_lock) {
    auto* record = static_cast<task_record*>(std::malloc(sizeof(task_record)));
    qx_thread* task = record == nullptr ? nullptr : task_table[kind].add(arg, fd);
    if (task == nullptr) {
        SCC_LOG_FROM(function, "%s", task_table[kind].failure);
        std::free(record);
        return false;
    }
    void* argument = kind == task_connect || kind == task_write ? arg : nullptr;
    *record = {{}, task, kind, current_generation(), connection_epoch(), argument};
    list_add_tail(&record->link, &g_tasks);
    return true;
}

// An unregistration clears the app id, then cancels, then closes.
bool is_wanted(u32 epoch) SCC_REQUIRES(g_tasks_lock) {
    return epoch == connection_epoch() && app_id_now() != 0;
}

// False when the caller must try again.
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

running_task take_task(task_kind kind, const qx_thread* task) {
    const mutex_guard guard(g_tasks_lock);
    task_record* record = find_running(kind, task);
    if (record == nullptr) {
        return {task == nullptr, nullptr, current_generation(), connection_epoch()};
    }
    const running_task taken{true, record->argument, record->generation, record->epoch};
    forget(record);
    return taken;
}

bool is_pending(task_kind kind) {
    const mutex_guard guard(g_tasks_lock);
    return find_task([kind](const task_record& each) { return each.kind == kind; }) != nullptr;
}

void cancel_all_tasks() {
    const mutex_guard guard(g_tasks_lock);
    cancel_pending();
}

bool end_connection(u32 epoch, u32& after, u32 next_state) {
    const mutex_guard guard(g_tasks_lock);
    if (!is_wanted(epoch)) {
        return false;
    }
    cancel_pending();
    if (!end_connection_of(epoch, next_state)) {
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
