// The workstation's event loop: each task is one libevent event that fires once.
//
// A handle is the task's number, which is never reused, and not its address: a caller may cancel a handle
// after the task is gone, and must not hit a newer task. A task is in the table until its handler has
// returned or it is cancelled. libevent's finaliser frees it, when none of its callbacks can be running.
#include "qx_thread.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <pthread.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>

struct qx_thread_master {
    event_base* base;
    event* wake;  // activated by a stop, since the loop may be about to wait
    std::atomic<bool> stopping;
};

namespace {

struct task {
    task* next;  // in its bucket; guarded by g_tasks_mutex
    std::uintptr_t number;
    qx_thread_master* master;
    event* trigger;
    qx_thread_handler handler;
    void* arg;
    int fd;
    int value;
    const char* name;
    bool started;    // guarded by g_tasks_mutex
    bool cancelled;  // guarded by g_tasks_mutex
};

// Numbers are consecutive, so the buckets fill evenly.
constexpr std::size_t buckets = 1024;

// Guards the table and the flags of the tasks.
constinit pthread_mutex_t g_tasks_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit std::array<task*, buckets> g_tasks{};
constinit std::uintptr_t g_last_number = 0;
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

qx_thread* handle_of(const task* one) {
    return reinterpret_cast<qx_thread*>(one->number);
}

// The pointer to the task, or the null at the end of its bucket.
task** place_of(std::uintptr_t number) {
    task** place = &g_tasks[number % buckets];
    while (*place != nullptr && (*place)->number != number) {
        place = &(*place)->next;
    }
    return place;
}

const task* find_task(const qx_thread* handle) {
    return *place_of(reinterpret_cast<std::uintptr_t>(handle));
}

void enter(task* one) {
    one->number = ++g_last_number;
    *place_of(one->number) = one;
}

void remove(const task* one) {
    *place_of(one->number) = one->next;
}

void on_wake(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    const auto* master = static_cast<qx_thread_master*>(argument);
    if (master->stopping.load()) {
        event_base_loopbreak(master->base);
    }
}

// Polls readable sockets after every ordinary task, so that tasks that add themselves again starve nobody
// and a high-priority read overtakes all waiting tasks.
event_base* new_base() {
    event_config* config = event_config_new();
    event_base* base = nullptr;
    if (config != nullptr &&
        event_config_set_max_dispatch_interval(config, nullptr, 1, normal_priority) == 0) {
        base = event_base_new_with_config(config);
    }
    if (config != nullptr) {
        event_config_free(config);
    }
    return base;
}

bool make_base(qx_thread_master* master) {
    master->base = new_base();
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

void free_task(event* /*trigger*/, void* one) {
    std::free(one);
}

// Call with the guard held.
void cancel_task(task* one) {
    remove(one);
    one->cancelled = true;
    event_free_finalize(0, one->trigger, free_task);
}

// Runs on the loop's thread.
void fire(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    auto* one = static_cast<task*>(argument);
    qx_thread* handle = nullptr;
    {
        const tasks_guard guard;
        if (one->cancelled) {
            return;
        }
        one->started = true;
        handle = handle_of(one);
    }
    one->handler(handle);
    const tasks_guard guard;
    cancel_task(one);
}

task* make_task(qx_thread_master* master, qx_thread_handler handler, void* arg, const char* name) {
    if (master == nullptr || handler == nullptr) {
        return nullptr;
    }
    auto* one = static_cast<task*>(std::calloc(1, sizeof(task)));
    if (one != nullptr) {
        one->master = master;
        one->handler = handler;
        one->arg = arg;
        one->name = name;
        one->fd = -1;
    }
    return one;
}

bool make_trigger(task* one, short what, int priority) {
    one->trigger = event_new(one->master->base, one->fd, what, fire, one);
    return one->trigger != nullptr && event_priority_set(one->trigger, priority) == 0;
}

qx_thread* give_up(task* one) {
    if (one->trigger != nullptr) {
        event_free(one->trigger);
    }
    std::free(one);
    return nullptr;
}

// Makes and starts the event; frees the task on failure. Call with the guard held, so that the handler cannot
// run before the task is in the table.
qx_thread* start(task* one, short what, int priority, const timeval* timeout) {
    if (!make_trigger(one, what, priority)) {
        return give_up(one);
    }
    const tasks_guard guard;
    if (event_add(one->trigger, timeout) != 0) {
        return give_up(one);
    }
    enter(one);
    return handle_of(one);
}

// A task that is ready immediately; such tasks run in the order of addition.
qx_thread* start_ready(task* one) {
    if (!make_trigger(one, 0, normal_priority)) {
        return give_up(one);
    }
    const tasks_guard guard;
    enter(one);
    event_active(one->trigger, EV_TIMEOUT, 0);
    return handle_of(one);
}

qx_thread* add_descriptor_task(qx_thread_master* master, qx_thread_handler handler, void* arg, int fd,
                               const char* name, short what, int priority) {
    task* one = fd < 0 ? nullptr : make_task(master, handler, arg, name);
    if (one == nullptr) {
        return nullptr;
    }
    one->fd = fd;
    return start(one, what, priority, nullptr);
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
    return master;
}

void qx_thread_master_free(struct qx_thread_master* master) {
    if (master == nullptr) {
        return;
    }
    {
        const tasks_guard guard;
        for (task*& bucket : g_tasks) {
            for (task** place = &bucket; *place != nullptr;) {
                if ((*place)->master == master) {
                    cancel_task(*place);  // moves the next one here
                } else {
                    place = &(*place)->next;
                }
            }
        }
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
    task* one = make_task(master, handler, arg, name);
    if (one == nullptr) {
        return nullptr;
    }
    one->value = value;
    return start_ready(one);
}

struct qx_thread* qx_thread_add_timer_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, long seconds, const char* name) {
    task* one = make_task(master, handler, arg, name);
    if (one == nullptr) {
        return nullptr;
    }
    const timeval interval{seconds > 0 ? seconds : 0, 0};
    return start(one, EV_TIMEOUT, normal_priority, &interval);
}

struct qx_thread* qx_thread_add_read_high_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                                   void* arg, int fd, const char* name) {
    return add_descriptor_task(master, handler, arg, fd, name, EV_READ, high_priority);
}

struct qx_thread* qx_thread_add_write_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, int fd, const char* name) {
    return add_descriptor_task(master, handler, arg, fd, name, EV_WRITE, normal_priority);
}

void qx_thread_cancel(struct qx_thread* handle) {
    const tasks_guard guard;
    task* const one = *place_of(reinterpret_cast<std::uintptr_t>(handle));
    if (one != nullptr && !one->started) {
        cancel_task(one);
    }
}

void* qx_thread_arg(const struct qx_thread* handle) {
    const tasks_guard guard;
    const task* const one = find_task(handle);
    return one == nullptr ? nullptr : one->arg;
}

int qx_thread_fd(const struct qx_thread* handle) {
    const tasks_guard guard;
    const task* const one = find_task(handle);
    return one == nullptr ? -1 : one->fd;
}

int qx_thread_value(const struct qx_thread* handle) {
    const tasks_guard guard;
    const task* const one = find_task(handle);
    return one == nullptr ? 0 : one->value;
}

const char* qx_thread_name(const struct qx_thread* handle) {
    const tasks_guard guard;
    const task* const one = find_task(handle);
    return one == nullptr ? nullptr : one->name;
}
}
