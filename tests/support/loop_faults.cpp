#include "support/loop_faults.h"

#include <dlfcn.h>
#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "support/loop_acts.h"

namespace test {
namespace {

struct record {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<added_task> tasks;
    std::map<qx_thread*, added_task> of_handle;  // the platform does not reuse its numbers
    std::map<std::string, event_queue<int>> results;
    std::vector<cancelled_task> cancelled;
    std::vector<std::thread::id> callers;
    std::string kept_name;
    std::set<qx_thread*> kept;
    std::map<adding, int> refusals;
    long timer_seconds = -1;
    void (*on_cancel)() = nullptr;
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

bool is_of_library(const std::string& name) {
    return name.starts_with("scc-");
}

// Handles of tasks that are kept from the loop: the platform's are small numbers.
qx_thread* next_kept_handle() {
    static std::uintptr_t last = std::uintptr_t{1} << 40U;
    return reinterpret_cast<qx_thread*>(++last);
}

// Holds the record's mutex from before the task can run until it is recorded.
template <class Add>
qx_thread* note(added_task task, const Add& add) {
    record& noted = the_record();
    const std::lock_guard guard(noted.mutex);
    int& refusals = noted.refusals[task.call];
    task.refused = refusals > 0;
    refusals -= task.refused ? 1 : 0;
    task.thread = std::this_thread::get_id();
    if (is_of_library(task.name)) {
        noted.callers.push_back(task.thread);
    }
    if (!task.refused && !noted.kept_name.empty() && task.name == noted.kept_name) {
        task.handle = next_kept_handle();
        noted.kept.insert(task.handle);
    } else if (!task.refused) {
        task.handle = add();
    }
    if (task.handle != nullptr) {
        noted.of_handle[task.handle] = task;
    }
    noted.tasks.push_back(task);
    noted.changed.notify_all();
    return task.handle;
}

// Replaces the handler of each task of the library.
int run_noted(qx_thread* task) {
    added_task one;
    {
        const std::lock_guard guard(the_record().mutex);
        one = the_record().of_handle[task];
    }
    const int result = one.handler(task);
    task_results(one.name).push(result);
    return result;
}

qx_thread_handler handler_for_loop(const added_task& task) {
    return is_of_library(task.name) ? run_noted : task.handler;
}

template <class Function>
Function* real_function(const char* name) {
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(found);
}

using add_numbered = qx_thread*(qx_thread_master*, qx_thread_handler, void*, int, const char*);
using add_timer = qx_thread*(qx_thread_master*, qx_thread_handler, void*, long, const char*);

qx_thread* add(adding call, const char* function, qx_thread_master* master, qx_thread_handler handler,
               void* arg, int number, const char* name) {
    const added_task task{call, name != nullptr ? name : "", handler, arg, number, false, nullptr, {}};
    return note(task, [&] {
        return real_function<add_numbered>(function)(master, handler_for_loop(task), arg, number, name);
    });
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
    return the_record().changed.wait_for(guard, std::chrono::seconds(60),
                                         [&] { return named(the_record().tasks, name).size() >= count; });
}

std::vector<cancelled_task> cancelled_tasks(const std::string& name) {
    const std::lock_guard guard(the_record().mutex);
    std::vector<cancelled_task> found;
    std::ranges::copy_if(the_record().cancelled, std::back_inserter(found),
                         [&](const cancelled_task& task) { return task.name == name; });
    return found;
}

void on_cancel(void (*act)()) {
    const std::lock_guard guard(the_record().mutex);
    the_record().on_cancel = act;
}

std::vector<std::thread::id> threads_that_called() {
    const std::lock_guard guard(the_record().mutex);
    return the_record().callers;
}

void forget_added_tasks() {
    const std::lock_guard guard(the_record().mutex);
    the_record().tasks.clear();
    the_record().cancelled.clear();
    the_record().callers.clear();
}

event_queue<int>& task_results(const std::string& name) {
    const std::lock_guard guard(the_record().mutex);
    return the_record().results[name];
}

void keep_from_loop(const std::string& name) {
    const std::lock_guard guard(the_record().mutex);
    the_record().kept_name = name;
}

bool run_kept(const added_task& task, qx_thread* object) {
    {
        const std::lock_guard guard(the_record().mutex);
        if (the_record().kept.erase(task.handle) == 0) {
            return false;
        }
    }
    task_results(task.name).push(task.handler(object));
    return true;
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
    const test::added_task task{
        adding::timer, name != nullptr ? name : "", handler, arg, seconds, false, nullptr, {}};
    return test::note(task, [&] {
        const long wanted = test::the_record().timer_seconds;
        return test::real_function<test::add_timer>("qx_thread_add_timer_withname")(
            master, test::handler_for_loop(task), arg, wanted < 0 ? seconds : wanted, name);
    });
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
    void (*act)() = nullptr;
    {
        const std::lock_guard guard(test::the_record().mutex);
        act = std::exchange(test::the_record().on_cancel, nullptr);
    }
    if (act != nullptr) {
        act();
    }
    {
        test::record& noted = test::the_record();
        const std::lock_guard guard(noted.mutex);
        if (const auto found = noted.of_handle.find(task); found != noted.of_handle.end()) {
            noted.cancelled.push_back({task, found->second.name, std::this_thread::get_id(),
                                       fcntl(static_cast<int>(found->second.number), F_GETFD) != -1});
        }
        noted.callers.push_back(std::this_thread::get_id());
        if (noted.kept.erase(task) != 0) {
            return;
        }
    }
    test::real_function<void(qx_thread*)>("qx_thread_cancel")(task);
}
}
