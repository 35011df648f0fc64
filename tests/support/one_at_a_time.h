// Two registrations of one process, the first of which ends while one of its handlers runs: the order in
// which the handlers of both are called.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "scclib.h"
#include "support/handler_events.h"
#include "support/scripted_daemon.h"
#include "support/waiting.h"

namespace test {

// What happened, in order.
inline event_queue<std::string>& happened() {
    static auto* queue = new event_queue<std::string>;
    return *queue;
}

inline std::atomic<void (*)()>& inside_old_handler() {
    static std::atomic<void (*)()> act{nullptr};
    return act;
}

// The body of every handler of the first registration.
inline void old_handler() {
    if (const auto act = inside_old_handler().load(); act != nullptr) {
        act();
    }
    hold_here();
    happened().push("the old handler returns");
}

inline scc_reg_info second_registration() {
    scc_reg_info info{};
    info.app_id = 9;
    info.handlers.server_status = [](std::uint32_t status) {
        happened().push("new status " + std::to_string(status));
    };
    info.handlers.station_move = [](std::uint8_t) { happened().push("new notification"); };
    return info;
}

inline void register_again() {
    const scc_reg_info info = second_registration();
    EXPECT_EQ(scc_svr_reg(&info), 0U);
}

// The daemon accepts the second registration and sends it a notification and a liveness probe at once.
// Neither is delivered or answered until the first registration's handler, which waits in hold_here, has
// returned.
inline void expect_second_waits_for_first(scripted_daemon& daemon) {
    EXPECT_EQ(u32_at(daemon.accept_registration().first, 0), 9U);
    ASSERT_TRUE(all_taken(daemon.fd(side::async)));
    daemon.send_items(side::async, {item_bytes(210, wire().u32(1).u8(1)), item_bytes(319, wire().u32(0))});
    ASSERT_TRUE(others_are_waiting());
    EXPECT_EQ(happened().size(), 0U);
    EXPECT_TRUE(daemon.stays_silent(side::sync, 0));
    released().push(1);
    EXPECT_EQ(happened().wait(), "the old handler returns");
    EXPECT_EQ(happened().wait(), "new status 1");
    EXPECT_EQ(happened().wait(), "new notification");
    EXPECT_EQ(daemon.read_item(side::sync).type, 319);
}

}  // namespace test
