// A program under test whose output is read line by line. It is killed with the object.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

namespace sccd_test {

class child_program {
  public:
    explicit child_program(const char* path, std::vector<std::string> arguments = {}) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        std::vector<char*> words{const_cast<char*>(path)};
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            ::execv(path, words.data());
            ::_exit(127);
        }
        ::close(ends[1]);
        output_ = ::fdopen(ends[0], "r");
    }
    ~child_program() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        if (output_ != nullptr) {
            std::fclose(output_);
        }
    }
    child_program(const child_program&) = delete;
    child_program& operator=(const child_program&) = delete;

    // The next line; empty at the end of the output. The test's time limit ends a wait in vain.
    std::string line() {
        char buffer[512];
        if (std::fgets(buffer, sizeof buffer, output_) == nullptr) {
            return {};
        }
        std::string text = buffer;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        return text;
    }
    // Reads lines up to this one and returns those before it.
    std::vector<std::string> lines_before(const std::string& last) {
        std::vector<std::string> lines;
        for (std::string next = line(); next != last; next = line()) {
            EXPECT_NE(next, "") << "the output ended before: " << last;
            if (next.empty()) {
                break;
            }
            lines.push_back(next);
        }
        return lines;
    }
    void signal(int number) const { ::kill(pid_, number); }
    int wait_for_end() {
        int status = -1;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

  private:
    pid_t pid_ = -1;
    std::FILE* output_ = nullptr;
};

}  // namespace sccd_test
