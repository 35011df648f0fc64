// Wraps the event loop's scheduling calls: loop_faults.cpp records each task that the library adds or
// cancels, and can refuse to add one, or withhold it from the loop so that the test runs it. Any thread may
// call.
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
    std::thread::id thread;  // that added it
};

struct cancelled_task {
    qx_thread* handle;
    std::string name;
    std::thread::id thread;
    bool open;  // the descriptor that it watched, where it watched one
};

// The next calls of that kind return null.
void refuse_to_add(adding call, int times);
// Timers expire after that many seconds regardless of their argument; a negative number ends this.
void set_timer_seconds(long seconds);

[[nodiscard]] std::vector<added_task> added_tasks();
// The tasks with this name, including refused ones.
[[nodiscard]] std::vector<added_task> added_tasks(const std::string& name);
// Waits up to 60 seconds until that many tasks with this name were added.
[[nodiscard]] bool wait_for_added(const std::string& name, std::size_t count);
// The cancelled handles of tasks with this name, including those that have already run.
[[nodiscard]] std::vector<cancelled_task> cancelled_tasks(const std::string& name);
// Every thread that has added or cancelled a task of the library.
[[nodiscard]] std::vector<std::thread::id> threads_that_called();
void forget_added_tasks();
// The return values of the library's tasks with this name, in order, whoever ran them.
event_queue<int>& task_results(const std::string& name);

// Withholds tasks with this name from the loop; an empty name ends it. They still count as added_tasks().
void keep_from_loop(const std::string& name);
// Runs a withheld task, unless it was cancelled. The handler gets the task's handle or, as on a platform
// whose tasks are not handles, another object. Returns false if there is nothing to run.
bool run_kept(const added_task& task, qx_thread* object);

}  // namespace test
