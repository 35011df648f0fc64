#include "support/event_loop.h"

#include <qx_thread.h>

#include <algorithm>
#include <deque>

#include "support/fake_system.h"

using namespace scc::fuzz;

struct qx_thread {
    qx_thread_handler handler;
    void* arg;
    int fd;
};

namespace {

std::deque<qx_thread*> g_tasks;

qx_thread* add_task(qx_thread_handler handler, void* arg, int fd) {
    auto* task = new qx_thread{handler, arg, fd};
    g_tasks.push_back(task);
    return task;
}

bool is_ready(const qx_thread& task) {
    if (task.fd < 0) {
        return true;
    }
    const fake_socket& at = socket_of(task.fd);
    return !at.open || at.shut || at.hung_up || at.read < at.incoming.size();
}

}  // namespace

namespace scc::fuzz {

bool run_task() {
    const auto ready =
        std::find_if(g_tasks.begin(), g_tasks.end(), [](const qx_thread* task) { return is_ready(*task); });
    if (ready == g_tasks.end()) {
        return false;
    }
    qx_thread* task = *ready;
    g_tasks.erase(ready);
    (void)task->handler(task);
    delete task;
    return true;
}

bool has_no_tasks() {
    return g_tasks.empty();
}

}  // namespace scc::fuzz

extern "C" {

qx_thread* qx_thread_add_event_withname(qx_thread_master*, qx_thread_handler handler, void* arg, int,
                                        const char*) {
    return add_task(handler, arg, -1);
}
qx_thread* qx_thread_add_timer_withname(qx_thread_master*, qx_thread_handler handler, void* arg, long,
                                        const char*) {
    return add_task(handler, arg, -1);
}
qx_thread* qx_thread_add_read_high_withname(qx_thread_master*, qx_thread_handler handler, void* arg, int fd,
                                            const char*) {
    return add_task(handler, arg, fd);
}
qx_thread* qx_thread_add_write_withname(qx_thread_master*, qx_thread_handler handler, void* arg, int fd,
                                        const char*) {
    return add_task(handler, arg, fd);
}
void qx_thread_cancel(qx_thread* task) {
    if (std::erase(g_tasks, task) != 0) {
        delete task;
    }
}
void* qx_thread_arg(const qx_thread* task) {
    return task->arg;
}
}
