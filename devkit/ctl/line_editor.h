// Reads lines from a terminal with editing, history and completion (libedit). One at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "completion.h"

namespace scc::ctl {

enum class line_state { line, interrupted, end };

class line_editor {
  public:
    using completer = std::function<completion(const std::vector<std::string>& words)>;

    // Lines are kept in `history_file` and read from it; empty: in memory only.
    line_editor(std::string prompt, std::string history_file, completer complete);
    ~line_editor();
    line_editor(const line_editor&) = delete;
    line_editor& operator=(const line_editor&) = delete;

    [[nodiscard]] line_state read(std::string& line);

  private:
    struct state;
    std::unique_ptr<state> state_;
};

}  // namespace scc::ctl
