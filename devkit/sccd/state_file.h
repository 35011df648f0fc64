// Keeps the daemon's state in a file, so that it survives a restart. The file is replaced as a whole, a
// moment after a change and when the daemon ends; a reader never sees half of it.
#pragma once

#include <string>

#include "sccd/daemon_core.h"

namespace scc::sccd {

class state_file {
  public:
    // Reads the file, if there is one, into an empty daemon, and writes it. Throws std::runtime_error.
    state_file(daemon_core& daemon, std::string path);
    state_file(const state_file&) = delete;
    state_file& operator=(const state_file&) = delete;

    // Something may have changed.
    void touch();
    // Writes what is not written yet. A failure is told once on standard error.
    void save();

  private:
    [[nodiscard]] std::string write(const std::string& text) const;

    daemon_core& daemon_;
    std::string path_;
    std::string written_;
    bool waiting_ = false;
    bool failed_ = false;
};

}  // namespace scc::sccd
