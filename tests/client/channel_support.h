// Shared by the tests of sending and receiving: a batch that only the test flushes, and a receive thread held
// inside a handler.
#pragma once

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "client/control_block.h"
#include "support/registered_client.h"
#include "support/silence.h"
#include "support/sleeping_thread.h"
#include "support/waiting.h"

extern "C" std::atomic<std::uint8_t> g_send_buf_chk_enabled;

namespace test {

// The library's receive thread: the one that is not the checker, which was started later. 0 if there is none.
inline pid_t receive_thread() {
    pid_t first = 0;
    for (const std::string& id : of_library_threads("Pid")) {
        const pid_t one = std::stoi(id);
        first = first == 0 || one < first ? one : first;
    }
    return first;
}

// The receive thread has ended. The checker has been named before it is enabled: on a busy machine it may
// begin after the registration.
inline bool only_the_checker_is_left() {
    return g_send_buf_chk_enabled.load() != 0 && library_threads() == 1;
}

inline bytes distinct_bytes(std::size_t count, std::uint8_t first = 1) {
    bytes value(count);
    for (std::size_t i = 0; i < count; ++i) {
        value[i] = static_cast<std::uint8_t>(first + i * 7);
    }
    return value;
}

// Blocks the receive thread until the test releases it.
inline void hold_receive_thread(std::uint8_t) {
    hold_here();
}

class runtime_test : public registered_client {
  protected:
    void start_with_holding_handler() {
        info.handlers.station_move = hold_receive_thread;
        start();
    }

    // The receive thread stays inside a handler from here to release_receive_thread().
    void hold() {
        daemon.send_item(side::async, 210, wire().u32(1).u8(1));
        ASSERT_TRUE(entered().wait());
    }
    static void release() { released().push(1); }

    // Loses the connection and comes back.
    void reconnect() {
        daemon.close_both();
        ASSERT_EQ(statuses().wait(), 0U);
        daemon.accept_registration();
        ASSERT_EQ(statuses().wait(), 1U);
    }

    std::filesystem::path socket_file(const std::string& name) const {
        return daemon.directory().runtime() + "/" + name + own_pid();
    }
};

// No checker thread runs, so a batch waits until the test flushes it.
class unflushed_batch : public runtime_test {
  protected:
    unflushed_batch() { g_send_buf_chk_enabled = 1; }
};

}  // namespace test
