// sccctl on a terminal of its own, for what it does only there. Every wait ends after 60 seconds.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ctl_support.h"

namespace ctl_test {

class terminal {
  public:
    // The program's home, where it keeps its history, is the runtime directory.
    terminal(const std::string& program, const std::vector<std::string>& arguments,
             const std::string& tmpdir) {
        std::vector<const char*> argv{program.c_str()};
        for (const std::string& each : arguments) {
            argv.push_back(each.c_str());
        }
        argv.push_back(nullptr);
        winsize size{24, 100, 0, 0};
        pid_ = forkpty(&descriptor_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TMPDIR", tmpdir.c_str(), 1);
            setenv("HOME", tmpdir.c_str(), 1);
            setenv("TERM", "xterm", 1);
            execv(argv[0], const_cast<char* const*>(argv.data()));
            _exit(127);
        }
    }
    ~terminal() {
        close(descriptor_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    void type(const std::string& keys) {
        ASSERT_EQ(::write(descriptor_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    // What was shown up to the text, which is taken away with it; fails the test if it is not shown.
    std::string until(const std::string& text) {
        while (shown_.find(text) == std::string::npos) {
            if (!fill()) {
                ADD_FAILURE() << "\"" << text << "\" is not shown, but: " << shown_;
                return {};
            }
        }
        const std::size_t end = shown_.find(text) + text.size();
        std::string before = shown_.substr(0, end);
        shown_.erase(0, end);
        return before;
    }
    void signal(int number) const { kill(pid_, number); }
    // Whether it echoes what is typed and hands on whole lines, as between two programs.
    [[nodiscard]] bool is_set_for_lines() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(descriptor_, &settings), 0);
        return (settings.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
    }
    // Shows the rest and returns the exit status.
    int finish() {
        while (fill()) {
            continue;
        }
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    [[nodiscard]] const std::string& rest() const { return shown_; }

  private:
    bool fill() {
        pollfd readable{descriptor_, POLLIN, 0};
        char bytes[4096];
        if (poll(&readable, 1, wait_ms) <= 0) {
            return false;
        }
        const ssize_t count = read(descriptor_, bytes, sizeof bytes);
        if (count <= 0) {
            return false;
        }
        shown_.append(bytes, static_cast<std::size_t>(count));
        return true;
    }

    pid_t pid_ = -1;
    int descriptor_ = -1;
    std::string shown_;
};

}  // namespace ctl_test
