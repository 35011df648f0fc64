// Runs one row of the table: makes the call and waits for its result.
#pragma once

#include <cstdint>
#include <string>

#include "command.h"
#include "session.h"

namespace scc::ctl {

// The tool's exit statuses.
inline constexpr int exit_success = 0;
inline constexpr int exit_refused = 1;      // the result was not 0
inline constexpr int exit_usage = 2;        // invalid command line
inline constexpr int exit_unreachable = 3;  // no daemon, or no answer before the time-out

struct outcome {
    const command* row = nullptr;
    bool answered = true;  // if false, `problem` says why there is no result
    std::uint32_t result = 0;
    call_values values;
    std::string problem;
    std::string_view hint = {};  // what to do about the result

    [[nodiscard]] int exit_status() const {
        if (!answered) {
            return exit_unreachable;
        }
        return result == 0 ? exit_success : exit_refused;
    }
};

// Runs a row. The session must have been started; for a local row it may be null.
[[nodiscard]] outcome run(const command& row, call_values values, session* within);

}  // namespace scc::ctl
