// What the handlers of a registered process report to the test, and a handler that blocks until the test
// releases it.
#pragma once

#include <cstdint>

#include "support/events.h"

namespace test {

inline event_queue<std::uint32_t>& statuses() {
    static auto* queue = new event_queue<std::uint32_t>;
    return *queue;
}

inline void on_status(std::uint32_t status) {
    statuses().push(status);
}

inline event_queue<int>& entered() {
    static auto* queue = new event_queue<int>;
    return *queue;
}

inline event_queue<int>& released() {
    static auto* queue = new event_queue<int>;
    return *queue;
}

// For a handler: blocks the delivering thread until the test releases it.
inline void hold_here() {
    entered().push(1);
    (void)released().wait();
}

}  // namespace test
