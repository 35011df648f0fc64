#include "support/loop_faults.h"

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <map>
#include <mutex>

namespace test {
namespace {

struct record {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<added_task> tasks;
    std::map<adding, int> refusals;
    long timer_seconds = -1;
    std::map<qx_thread*, std::string> names;  // of the tasks that the loop took
    std::map<std::string, std::size_t> cancelled;
};

// Never destroyed: the library's threads add tasks until the process has gone.
record& the_record() {
    static auto* one = new record;
    return *one;
}

std::vector<added_task> named(const std::vector<added_task>& tasks, const std::string& name) {
    std::vector<added_task> found;
    std::ranges::copy_if(tasks, std::back_inserter(found),
                         [&](const added_task& task) { return task.name == name; });
    return found;
}

// Whether the call may go on.
bool note(adding call, qx_thread_handler handler, void* arg, long number, const char* name) {
    const std::lock_guard guard(the_record().mutex);
    int& refusals = the_record().refusals[call];
    const bool refused = refusals > 0;
    refusals -= refused ? 1 : 0;
    the_record().tasks.push_back({call, name != nullptr ? name : "", handler, arg, number, refused});
    the_record().changed.notify_all();
    return !refused;
}

long timer_seconds(long wanted) {
    const std::lock_guard guard(the_record().mutex);
    return the_record().timer_seconds < 0 ? wanted : the_record().timer_seconds;
}

template <class Function>
Function* behind(const char* name) {
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(found);
}

qx_thread* named_task(qx_thread* task, const char* name) {
    const std::lock_guard guard(the_record().mutex);
    the_record().names[task] = name != nullptr ? name : "";
    return task;
}

using add_numbered = qx_thread*(qx_thread_master*, qx_thread_handler, void*, int, const char*);
using add_timer = qx_thread*(qx_thread_master*, qx_thread_handler, void*, long, const char*);

qx_thread* add(adding call, const char* function, qx_thread_master* master, qx_thread_handler handler,
               void* arg, int number, const char* name) {
    return note(call, handler, arg, number, name)
               ? named_task(behind<add_numbered>(function)(master, handler, arg, number, name), name)
               : nullptr;
}

}  // namespace

void refuse_to_add(adding call, int times) {
    const std::lock_guard guard(the_record().mutex);
    the_record().refusals[call] = times;
}

void set_timer_seconds(long seconds) {
    const std::lock_guard guard(the_record().mutex);
    the_record().timer_seconds = seconds;
}

std::vector<added_task> added_tasks() {
    const std::lock_guard guard(the_record().mutex);
    return the_record().tasks;
}

std::vector<added_task> added_tasks(const std::string& name) {
    return named(added_tasks(), name);
}

bool wait_for_added(const std::string& name, std::size_t count) {
    std::unique_lock guard(the_record().mutex);
    return the_record().changed.wait_for(guard, std::chrono::seconds(20),
                                         [&] { return named(the_record().tasks, name).size() >= count; });
}

void forget_added_tasks() {
    const std::lock_guard guard(the_record().mutex);
    the_record().tasks.clear();
}

std::size_t cancelled_tasks(const std::string& name) {
    const std::lock_guard guard(the_record().mutex);
    return the_record().cancelled[name];
}

}  // namespace test

using test::adding;

extern "C" {

qx_thread* qx_thread_add_event_withname(qx_thread_master* master, qx_thread_handler handler, void* arg,
                                        int value, const char* name) {
    return test::add(adding::event, __func__, master, handler, arg, value, name);
}

qx_thread* qx_thread_add_timer_withname(qx_thread_master* master, qx_thread_handler handler, void* arg,
                                        long seconds, const char* name) {
    return test::note(adding::timer, handler, arg, seconds, name)
               ? test::named_task(test::behind<test::add_timer>(__func__)(master, handler, arg,
                                                                          test::timer_seconds(seconds), name),
                                  name)
               : nullptr;
}

qx_thread* qx_thread_add_read_high_withname(qx_thread_master* master, qx_thread_handler handler, void* arg,
                                            int fd, const char* name) {
    return test::add(adding::read_high, __func__, master, handler, arg, fd, name);
}

qx_thread* qx_thread_add_write_withname(qx_thread_master* master, qx_thread_handler handler, void* arg,
                                        int fd, const char* name) {
    return test::add(adding::write, __func__, master, handler, arg, fd, name);
}

void qx_thread_cancel(qx_thread* task) {
    {
        const std::lock_guard guard(test::the_record().mutex);
        ++test::the_record().cancelled[test::the_record().names[task]];
    }
    test::behind<void(qx_thread*)>(__func__)(task);
}
}
