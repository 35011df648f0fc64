// What the tests of the runtime share: a batch that only the test flushes, a receive thread held inside a
// handler, and the library's threads as the kernel lists them.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "client/control_block.h"
#include "support/registered_client.h"
#include "support/silence.h"
#include "support/sleeping_thread.h"

extern "C" std::atomic<std::uint8_t> g_send_buf_chk_enabled;

namespace test {

inline std::string own_pid() {
    return std::to_string(getpid());
}

// One value out of /proc/self/task/<thread>/status for every thread with the library's name.
inline std::vector<std::string> of_library_threads(const std::string& field) {
    std::vector<std::string> values;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::ifstream status(task.path() / "status");
        std::string name;
        std::string value;
        for (std::string line; std::getline(status, line);) {
            const auto behind_tab = line.find('\t') == std::string::npos ? line.size() : line.find('\t') + 1;
            if (line.starts_with("Name:")) {
                name = line.substr(behind_tab);
            }
            if (line.starts_with(field + ":")) {
                value = line.substr(behind_tab);
            }
        }
        if (name == ("scclib-" + own_pid()).substr(0, 15)) {
            values.push_back(value);
        }
    }
    return values;
}

inline std::size_t library_threads() {
    return of_library_threads("Name").size();
}

// The library's thread that receives: the one beside the checker, which was started later. 0 when there is
// none.
inline pid_t receive_thread() {
    pid_t first = 0;
    for (const std::string& id : of_library_threads("Pid")) {
        const pid_t one = std::stoi(id);
        first = first == 0 || one < first ? one : first;
    }
    return first;
}

inline bytes distinct_bytes(std::size_t count, std::uint8_t first = 1) {
    bytes value(count);
    for (std::size_t i = 0; i < count; ++i) {
        value[i] = static_cast<std::uint8_t>(first + i * 7);
    }
    return value;
}

inline event_queue<int>& entered() {
    static auto* queue = new event_queue<int>;
    return *queue;
}

inline event_queue<int>& released() {
    static auto* queue = new event_queue<int>;
    return *queue;
}

// Keeps the receive thread until the test releases it.
inline void hold_receive_thread(std::uint8_t) {
    entered().push(1);
    (void)released().wait();
}

class runtime_test : public registered_client {
  protected:
    void start_with_holding_handler() {
        info.handlers.station_move = hold_receive_thread;
        start();
    }

    // The receive thread sits inside a handler from here to release_receive_thread().
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
