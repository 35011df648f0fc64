// What the security services print, and the signals that their main threads wait for.
#pragma once

#include <initializer_list>
#include <string>

#include "common/bytes.h"

namespace scc::service {

class console {
  public:
    explicit console(std::string program) : program_(std::move(program)) {}

    // Several threads print; each line is one write to standard output.
    void say(const std::string& line) const;
    // Says on standard error if standard output could not be written, and returns the exit code.
    [[nodiscard]] int end() const;
    // Prints to standard error what failed, and returns the exit code of a failure.
    int fail(const std::string& what, u32 error) const;

  private:
    const std::string program_;
};

// Blocks the signals for this thread and those that it starts, so that they are read from the returned
// descriptor alone. Returns -1 and sets errno.
[[nodiscard]] int open_signals(std::initializer_list<int> signals);
// Returns the next signal, or 0 if none can be read.
[[nodiscard]] int next_signal(int descriptor);

// Whether TMPDIR says where the daemon is.
[[nodiscard]] bool has_runtime_directory();

}  // namespace scc::service
