// A real sccd-dev in its own directory, and the real sccctl run against it. Every wait is for an event and
// ends after 60 seconds.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/remove_tree.h"

namespace ctl_test {

inline constexpr int wait_ms = 60'000;

// The option --timeout of a command whose answer never comes: the registration must not end by it on a busy
// machine.
inline constexpr const char* long_enough_to_register = "4";

// A child process with its three standard streams on pipes.
class process {
  public:
    process(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& tmpdir) {
        int in[2], out[2], error[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(error, O_CLOEXEC) != 0) {
            std::abort();
        }
        std::vector<const char*> argv{program.c_str()};
        for (const std::string& each : arguments) {
            argv.push_back(each.c_str());
        }
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            dup2(error[1], STDERR_FILENO);
            setenv("TMPDIR", tmpdir.c_str(), 1);
            execv(argv[0], const_cast<char* const*>(argv.data()));
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        close(error[1]);
        in_ = in[1];
        out_ = out[0];
        error_ = error[0];
    }
    ~process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (const int each : {in_, out_, error_}) {
            if (each >= 0) {
                close(each);
            }
        }
    }
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    void write(const std::string& text) {
        ASSERT_EQ(::write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void end_input() { close(std::exchange(in_, -1)); }

    // The next line of standard output, without its end; empty at the end or when nothing came in time.
    std::string line() {
        while (output_.find('\n') == std::string::npos) {
            if (!fill()) {
                return {};
            }
        }
        std::string first = output_.substr(0, output_.find('\n'));
        output_.erase(0, first.size() + 1);
        return first;
    }

    // Reads everything and waits for the end. Returns the exit status, or -1 if it was killed or hangs.
    int finish() {
        while (fill()) {
            continue;
        }
        if (hangs_) {
            return -1;
        }
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void signal(int number) const { kill(pid_, number); }

    [[nodiscard]] const std::string& output() const { return output_; }
    [[nodiscard]] const std::string& errors() const { return errors_; }

  private:
    // Waits for bytes of either stream; false when both have ended.
    bool fill() {
        pollfd each[2] = {{out_, POLLIN, 0}, {error_, POLLIN, 0}};
        if (out_ < 0 && error_ < 0) {
            return false;
        }
        if (poll(each, 2, wait_ms) <= 0) {
            ADD_FAILURE() << "nothing within " << wait_ms << " ms";
            hangs_ = true;
            return false;
        }
        if (each[0].revents != 0) {
            take(out_, output_);
        }
        if (each[1].revents != 0) {
            take(error_, errors_);
        }
        return true;
    }
    static void take(int& from, std::string& into) {
        char bytes[4096];
        const ssize_t count = read(from, bytes, sizeof bytes);
        if (count > 0) {
            into.append(bytes, static_cast<std::size_t>(count));
        } else {
            close(std::exchange(from, -1));
        }
    }

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, error_ = -1;
    std::string output_, errors_;
    bool hangs_ = false;
};

struct finished {
    int status = -1;
    std::string output;
    std::string errors;

    [[nodiscard]] std::vector<nlohmann::json> json_lines() const {
        std::vector<nlohmann::json> lines;
        std::istringstream stream(output);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(nlohmann::json::parse(line, nullptr, false));
            EXPECT_TRUE(lines.back().is_object()) << line;
        }
        return lines;
    }
};

class without_daemon : public testing::Test {
  protected:
    without_daemon() {
        std::string pattern = "/tmp/sccctl_test_XXXXXX";
        directory_ = mkdtemp(pattern.data());
    }
    ~without_daemon() override { test::remove_tree(directory_); }

    [[nodiscard]] finished run(const std::vector<std::string>& arguments,
                               const std::string& input = "") const {
        process child(SCCCTL_PATH, arguments, directory_);
        child.write(input);
        child.end_input();
        finished result;
        result.status = child.finish();
        result.output = child.output();
        result.errors = child.errors();
        return result;
    }

    // Runs lines in one shell; its JSON objects, one for each line.
    [[nodiscard]] std::vector<nlohmann::json> shell(const std::string& lines) const {
        return run({"shell", "--json"}, lines).json_lines();
    }

    [[nodiscard]] std::string file(const std::string& name) const { return directory_ + "/" + name; }
    [[nodiscard]] std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(file(name)) << text;
        return file(name);
    }
    [[nodiscard]] std::string text_of(const std::string& name) const {
        std::ifstream stream(file(name));
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    [[nodiscard]] const std::string& directory() const { return directory_; }

  private:
    std::string directory_;
};

class with_daemon : public without_daemon {
  protected:
    void SetUp() override { ASSERT_EQ(daemon_.line(), "sccd-dev: ready"); }
    [[nodiscard]] process& daemon() { return daemon_; }

  private:
    process daemon_{SCCD_DEV_PATH, {}, directory()};
};

}  // namespace ctl_test
