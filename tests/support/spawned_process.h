// A child process whose standard output is read as it arrives, so that the child never blocks on it.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace test {

// Whether the child outlives the thread that spawned it.
enum class child_life { own, of_its_parent };

class spawned_process {
  public:
    spawned_process(const std::string& program, std::vector<std::string> arguments,
                    child_life life = child_life::own) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            ended_ = true;
            return;
        }
        std::vector<char*> words{const_cast<char*>(program.c_str())};
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDOUT_FILENO);
            if (life == child_life::of_its_parent &&
                (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)) {
                _exit(127);
            }
            execv(words.front(), words.data());
            _exit(127);
        }
        close(ends[1]);
        reading_ = std::thread([this, from = ends[0]] { read_lines(from); });
    }
    ~spawned_process() {
        kill_hard();
        if (reading_.joinable()) {
            reading_.join();
        }
    }
    spawned_process(const spawned_process&) = delete;
    spawned_process& operator=(const spawned_process&) = delete;

    // -1 once its end has been waited for, or if it could not be started.
    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const {
        if (pid_ > 0) {
            kill(pid_, number);
        }
    }
    void kill_hard() {
        if (pid_ > 0) {
            signal(SIGKILL);
            wait_for_end();
        }
    }
    // The status from waitpid.
    int wait_for_end() {
        int status = -1;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }
    // The same if it has ended.
    std::optional<int> end() {
        int status = -1;
        if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == 0) {
            return std::nullopt;
        }
        pid_ = -1;
        return status;
    }
    [[nodiscard]] bool runs() const {
        siginfo_t info{};
        return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    // The position after the first line with this text at or after `from`, if it comes in time.
    std::optional<std::size_t> line_after(const std::string& text, std::size_t from,
                                          std::chrono::milliseconds patience) {
        std::unique_lock guard(mutex_);
        const auto until = std::chrono::steady_clock::now() + patience;
        for (std::size_t at = from;; ++at) {
            while (at >= lines_.size()) {
                if (ended_ || changed_.wait_until(guard, until) == std::cv_status::timeout) {
                    return std::nullopt;
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
