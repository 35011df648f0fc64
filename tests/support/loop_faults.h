// The event loop's scheduling calls as the tests see them: loop_faults.cpp stands between the library and the
// platform's library, records each task that is added and each that is cancelled, and can refuse to add one,
// or keep it from the loop so that the test runs it. Any thread.
#pragma once

#include <qx_thread.h>

#include <string>
#include <thread>
#include <vector>

#include "support/events.h"

namespace test {

enum class adding { event, timer, read_high, write };

struct added_task {
    adding call;
    std::string name;
    qx_thread_handler handler;
    void* arg;
    long number;  // event: value, timer: seconds, read and write: descriptor
    bool refused;
    qx_thread* handle;
    std::thread::id thread;  // that has added it
};

struct cancelled_task {
    qx_thread* handle;
    std::string name;
    std::thread::id thread;
    bool open;  // the descriptor that it watched, where it watched one
};

// The next calls of that kind return null.
void refuse_to_add(adding call, int times);
// Timers run after that many seconds whatever they ask for; a negative number lets them have their way.
void set_timer_seconds(long seconds);

[[nodiscard]] std::vector<added_task> added_tasks();
// Those with this name; refused ones count, too.
[[nodiscard]] std::vector<added_task> added_tasks(const std::string& name);
// Waits up to 20 seconds until that many tasks with this name were added.
[[nodiscard]] bool wait_for_added(const std::string& name, std::size_t count);
// The cancelled handles of tasks with this name, also of those that have run already.
[[nodiscard]] std::vector<cancelled_task> cancelled_tasks(const std::string& name);
// Every thread that has added or cancelled a task of the library.
[[nodiscard]] std::vector<std::thread::id> threads_that_called();
void forget_added_tasks();
// What the library's tasks with this name have returned, in order; both ways of running them count.
event_queue<int>& task_results(const std::string& name);

// Tasks with this name are taken and never run by the loop; an empty name ends it. They are added_tasks().
void keep_from_loop(const std::string& name);
// Runs a task that was kept from the loop, unless it was cancelled. The handler gets its handle or, as on a
// platform whose tasks are no handles, another object. False when there is nothing to run.
bool run_kept(const added_task& task, qx_thread* object);

}  // namespace test
