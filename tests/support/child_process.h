// A program as a child whose output is read as it comes, so that it never waits for its reader.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace test {

class child_process {
  public:
    static constexpr std::chrono::seconds patience{60};

    child_process(const std::string& program, std::vector<std::string> arguments) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        std::vector<char*> words{const_cast<char*>(program.c_str())};
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execv(words.front(), words.data());
            _exit(127);
        }
        close(ends[1]);
        reading_ = std::thread([this, from = ends[0]] { read_lines(from); });
    }
    ~child_process() {
        kill_hard();
        reading_.join();
    }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const { kill(pid_, number); }
    void kill_hard() {
        if (pid_ > 0) {
            signal(SIGKILL);
            wait_for_end();
        }
    }
    // The status that waitpid tells.
    int wait_for_end() {
        int status = -1;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }
    [[nodiscard]] bool runs() const { return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0; }

    // The position after the first line with this text at or after `from`. Fails the test if there is none.
    std::size_t wait_for_line(const std::string& text, std::size_t from = 0) {
        std::unique_lock guard(mutex_);
        const auto until = std::chrono::steady_clock::now() + patience;
        for (std::size_t at = from;; ++at) {
            while (at >= lines_.size()) {
                if (ended_ || changed_.wait_until(guard, until) == std::cv_status::timeout) {
                    ADD_FAILURE() << "no line with: " << text;
                    return at;
                }
            }
            if (lines_[at].find(text) != std::string::npos) {
                return at + 1;
            }
        }
    }
    [[nodiscard]] std::size_t line_count() const {
        const std::lock_guard guard(mutex_);
        return lines_.size();
    }
    [[nodiscard]] std::vector<std::string> lines(std::size_t from, std::size_t to) const {
        const std::lock_guard guard(mutex_);
        const auto begin = lines_.begin();
        return {begin + static_cast<std::ptrdiff_t>(from), begin + static_cast<std::ptrdiff_t>(to)};
    }

  private:
    void read_lines(int from) {
        std::FILE* stream = fdopen(from, "r");
        char* text = nullptr;
        std::size_t room = 0;
        for (ssize_t length = 0; (length = getline(&text, &room, stream)) > 0;) {
            const std::lock_guard guard(mutex_);
            lines_.emplace_back(text, static_cast<std::size_t>(length - 1));
            changed_.notify_all();
        }
        std::free(text);
        std::fclose(stream);
        const std::lock_guard guard(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    std::thread reading_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool ended_ = false;
};

}  // namespace test
