// Bounded waits for what no handler or log line reports: the state of threads, bytes that the peer has read.
#pragma once

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace test {

// Waits up to 60 seconds.
inline bool eventually(const std::function<bool()>& holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Whether the peer has taken everything that was sent to it.
inline bool all_taken(int fd) {
    return eventually([fd] {
        int left = 0;
        return ioctl(fd, TIOCOUTQ, &left) == 0 && left == 0;
    });
}

inline std::string own_pid() {
    return std::to_string(getpid());
}

struct process_thread {
    int id = 0;
    std::string name;
    std::string value;  // of the requested field
};

// One value out of /proc/self/task/<thread>/status for every thread.
inline std::vector<process_thread> process_threads(const std::string& field) {
    std::vector<process_thread> threads;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::ifstream status(task.path() / "status");
        process_thread one{std::stoi(task.path().filename()), "", ""};
        for (std::string line; std::getline(status, line);) {
            const auto after_tab = line.find('\t') == std::string::npos ? line.size() : line.find('\t') + 1;
            if (line.starts_with("Name:")) {
                one.name = line.substr(after_tab);
            }
            if (line.starts_with(field + ":")) {
                one.value = line.substr(after_tab);
            }
        }
        if (!one.name.empty()) {
            threads.push_back(one);
        }
    }
    return threads;
}

// The same for every thread with the library's name.
inline std::vector<std::string> of_library_threads(const std::string& field) {
    std::vector<std::string> values;
    for (const process_thread& one : process_threads(field)) {
        if (one.name == ("scclib-" + own_pid()).substr(0, 15)) {
            values.push_back(one.value);
        }
    }
    return values;
}

inline std::size_t library_threads() {
    return of_library_threads("Name").size();
}

// Waits up to 60 seconds until every thread but the caller sleeps, so that nothing more happens by itself.
inline bool others_are_waiting() {
    return eventually([] {
        for (const process_thread& one : process_threads("State")) {
            if (one.id != gettid() && !one.value.starts_with('S')) {
                return false;
            }
        }
        return true;
    });
}

}  // namespace test
