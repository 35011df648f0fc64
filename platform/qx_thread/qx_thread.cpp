// The workstation's event loop: each task is one libevent event that fires once.
//
// A task is in its master's list until its handler starts or it is cancelled; the list says which handles
// are valid. Its memory is freed by libevent's finaliser, once no callback of it can be running.
#include "qx_thread.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdlib>

struct qx_thread {
    qx_thread* next;
    qx_thread* prev;
    qx_thread_master* master;
    event* trigger;
    qx_thread_handler handler;
    void* arg;
    int fd;
    int value;
    const char* name;
    bool cancelled;
};

struct qx_thread_master {
    event_base* base;
    event* wake;  // activated by a stop: a loop that is only about to wait must not
    std::atomic<bool> stopping;
    qx_thread tasks;  // head of the list; g_tasks_mutex
    qx_thread_master* next_master;
};

namespace {

// Guards the lists of all masters and the cancelled flags: a handle names no master before it was found.
constinit pthread_mutex_t g_tasks_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit qx_thread_master* g_masters = nullptr;
constinit pthread_once_t g_threads_once = PTHREAD_ONCE_INIT;
constinit bool g_threads_ready = false;

constexpr int high_priority = 0;
constexpr int normal_priority = 1;
constexpr int priorities = 2;

class tasks_guard {
  public:
    tasks_guard() { pthread_mutex_lock(&g_tasks_mutex); }
    ~tasks_guard() { pthread_mutex_unlock(&g_tasks_mutex); }
    tasks_guard(const tasks_guard&) = delete;
    tasks_guard& operator=(const tasks_guard&) = delete;
};

void link_task(qx_thread_master* master, qx_thread* task) {
    task->next = &master->tasks;
    task->prev = master->tasks.prev;
    task->prev->next = task;
    master->tasks.prev = task;
}

void unlink_task(qx_thread* task) {
    task->next->prev = task->prev;
    task->prev->next = task->next;
}

void on_wake(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    const auto* master = static_cast<qx_thread_master*>(argument);
    if (master->stopping.load()) {
        event_base_loopbreak(master->base);
    }
}

bool make_base(qx_thread_master* master) {
    master->base = event_base_new();
    if (master->base == nullptr || event_base_priority_init(master->base, priorities) != 0) {
        return false;
    }
    master->wake = event_new(master->base, -1, 0, on_wake, master);
    return master->wake != nullptr && event_priority_set(master->wake, high_priority) == 0;
}

void free_base(qx_thread_master* master) {
    if (master->wake != nullptr) {
        event_free(master->wake);
    }
    if (master->base != nullptr) {
        event_base_free(master->base);
    }
    std::free(master);
}

void free_task(event* /*trigger*/, void* task) {
    std::free(task);
}

// Runs on the loop's thread.
void fire(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    auto* task = static_cast<qx_thread*>(argument);
    {
        const tasks_guard guard;
        if (task->cancelled) {
            return;
        }
        unlink_task(task);
        task->cancelled = true;
    }
    task->handler(task);
    event_free_finalize(0, task->trigger, free_task);
}

qx_thread* make_task(qx_thread_master* master, qx_thread_handler handler, void* arg, const char* name) {
    if (master == nullptr || handler == nullptr) {
        return nullptr;
    }
    auto* task = static_cast<qx_thread*>(std::calloc(1, sizeof(qx_thread)));
    if (task != nullptr) {
        task->master = master;
        task->handler = handler;
        task->arg = arg;
        task->name = name;
        task->fd = -1;
    }
    return task;
}

// Makes the event and starts it; the task is freed when that fails. Under the guard, so that the handler
// cannot run before the caller has its handle in the list.
qx_thread* start(qx_thread* task, short what, int priority, const timeval* timeout) {
    task->trigger = event_new(task->master->base, task->fd, what, fire, task);
    if (task->trigger == nullptr) {
        std::free(task);
        return nullptr;
    }
    event_priority_set(task->trigger, priority);
    const tasks_guard guard;
    if (event_add(task->trigger, timeout) != 0) {
        event_free(task->trigger);
        std::free(task);
        return nullptr;
    }
    link_task(task->master, task);
    return task;
}

bool find_task(const qx_thread* task) {
    for (qx_thread_master* master = g_masters; master != nullptr; master = master->next_master) {
        for (qx_thread* known = master->tasks.next; known != &master->tasks; known = known->next) {
            if (known == task) {
                return true;
            }
        }
    }
    return false;
}

qx_thread* add_descriptor_task(qx_thread_master* master, qx_thread_handler handler, void* arg, int fd,
                               const char* name, short what, int priority) {
    qx_thread* task = fd < 0 ? nullptr : make_task(master, handler, arg, name);
    if (task == nullptr) {
        return nullptr;
    }
    task->fd = fd;
    return start(task, what, priority, nullptr);
}

}  // namespace

extern "C" {

struct qx_thread_master* qx_thread_master_create(void) {
    pthread_once(&g_threads_once, [] { g_threads_ready = evthread_use_pthreads() == 0; });
    auto* master = static_cast<qx_thread_master*>(std::calloc(1, sizeof(qx_thread_master)));
    if (master == nullptr || !g_threads_ready) {
        std::free(master);
        return nullptr;
    }
    if (!make_base(master)) {
        free_base(master);
        return nullptr;
    }
    master->tasks.next = &master->tasks;
    master->tasks.prev = &master->tasks;
    const tasks_guard guard;
    master->next_master = g_masters;
    g_masters = master;
    return master;
}

void qx_thread_master_free(struct qx_thread_master* master) {
    if (master == nullptr) {
        return;
    }
    {
        const tasks_guard guard;
        for (qx_thread_master** link = &g_masters; *link != nullptr; link = &(*link)->next_master) {
            if (*link == master) {
                *link = master->next_master;
                break;
            }
        }
    }
    for (qx_thread* task = master->tasks.next; task != &master->tasks;) {
        qx_thread* next = task->next;
        task->cancelled = true;
        event_free_finalize(0, task->trigger, free_task);
        task = next;
    }
    free_base(master);
}

int qx_thread_master_run(struct qx_thread_master* master) {
    if (master == nullptr) {
        return -1;
    }
    int outcome = 0;
    while (!master->stopping.exchange(false) && outcome >= 0) {
        outcome = event_base_loop(master->base, EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY);
    }
    return outcome < 0 ? -1 : 0;
}

void qx_thread_master_stop(struct qx_thread_master* master) {
    if (master != nullptr) {
        master->stopping.store(true);
        event_base_loopbreak(master->base);
        event_active(master->wake, EV_TIMEOUT, 0);
    }
}

struct qx_thread* qx_thread_add_event_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, int value, const char* name) {
    qx_thread* task = make_task(master, handler, arg, name);
    if (task == nullptr) {
        return nullptr;
    }
    task->value = value;
    const timeval now{0, 0};
    return start(task, EV_TIMEOUT, normal_priority, &now);
}

struct qx_thread* qx_thread_add_timer_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, long seconds, const char* name) {
    qx_thread* task = make_task(master, handler, arg, name);
    if (task == nullptr) {
        return nullptr;
    }
    const timeval interval{seconds > 0 ? seconds : 0, 0};
    return start(task, EV_TIMEOUT, normal_priority, &interval);
}

struct qx_thread* qx_thread_add_read_high_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                                   void* arg, int fd, const char* name) {
    return add_descriptor_task(master, handler, arg, fd, name, EV_READ, high_priority);
}

struct qx_thread* qx_thread_add_write_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, int fd, const char* name) {
    return add_descriptor_task(master, handler, arg, fd, name, EV_WRITE, normal_priority);
}

void qx_thread_cancel(struct qx_thread* task) {
    const tasks_guard guard;
    if (task == nullptr || !find_task(task)) {
        return;
    }
    unlink_task(task);
    task->cancelled = true;
    event_free_finalize(0, task->trigger, free_task);
}

void* qx_thread_arg(const struct qx_thread* task) {
    return task == nullptr ? nullptr : task->arg;
}

int qx_thread_fd(const struct qx_thread* task) {
    return task == nullptr ? -1 : task->fd;
}

int qx_thread_value(const struct qx_thread* task) {
    return task == nullptr ? 0 : task->value;
}

const char* qx_thread_name(const struct qx_thread* task) {
    return task == nullptr ? nullptr : task->name;
}
}
