// The event loop's scheduling calls as the tests see them: loop_faults.cpp stands in front of the platform's
// library, records each task that is added or cancelled and can refuse to add one. Any thread.
#pragma once

#include <qx_thread.h>

#include <string>
#include <vector>

namespace test {

enum class adding { event, timer, read_high, write };

struct added_task {
    adding call;
    std::string name;
    qx_thread_handler handler;
    void* arg;
    long number;  // event: value, timer: seconds, read and write: descriptor
    bool refused;
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
void forget_added_tasks();
// How many tasks with this name were cancelled.
[[nodiscard]] std::size_t cancelled_tasks(const std::string& name);

}  // namespace test
