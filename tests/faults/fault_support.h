// A registered application whose allocations and system calls the test can make fail. The calls of the whole
// process count, including the scripted daemon's, so the daemon is idle between setting the fault and the
// act.
#pragma once

#include <array>

#include "client/channel_support.h"
#include "support/faults.h"

namespace test {

// What ends a connection, and two errors that do not.
inline constexpr std::array reset_errors = {9, 22, 32, 88, 95, 100, 101, 104, 107, 110, 111};
inline constexpr std::array passing_errors = {4, 11, 12};

template <class Act>
void for_each_error(Act act) {
    for (const int error : reset_errors) {
        SCOPED_TRACE(error);
        act(error, true);
    }
    for (const int error : passing_errors) {
        SCOPED_TRACE(error);
        act(error, false);
    }
}

inline event_queue<std::uint32_t>& results() {
    static auto* queue = new event_queue<std::uint32_t>;
    return *queue;
}

inline void on_svi(std::uint32_t result, std::uint32_t, std::uint8_t) {
    results().push(result);
}

class fault_test : public runtime_test {
  protected:
    fault_test() { info.handlers.svi_router_acl = on_svi; }
    ~fault_test() override { end_faults(); }

    // A receive thread that an earlier registration has left reads its socket's end once more, and would take
    // a fault that is meant for this registration.
    void start(std::uint8_t option = 1) {
        ASSERT_TRUE(eventually([] { return library_threads() <= (g_send_buf_chk_enabled == 0 ? 0U : 1U); }));
        runtime_test::start(option);
    }

    // A request goes out and its result comes back.
    void expect_working() {
        std::uint32_t call_id = 0;
        ASSERT_EQ(scc_svi_router_acl_set(1, &call_id), 0U);
        ASSERT_EQ(daemon.read_item(side::async).value, bytes(wire().u32(call_id).u32(1)));
        daemon.send_result(call_id, 2015);
        EXPECT_EQ(results().wait(), 2015U);
    }

    void expect_reconnection() {
        ASSERT_EQ(statuses().wait(), 0U);
        daemon.accept_registration();
        ASSERT_EQ(statuses().wait(), 1U);
    }

    // After an error: the connection was replaced if it had to be, and works in any case.
    void expect_recovered(bool lost) {
        if (lost) {
            expect_reconnection();
        }
        EXPECT_EQ(statuses().size(), 0U);
        expect_working();
    }
};

}  // namespace test
