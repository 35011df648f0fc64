// The command line of scc-ss-linux.
#pragma once

#include <optional>

#include "linux/interface_map.h"

namespace scc::kernel {

struct options {
    interface_map map;
    bool flush = false;
    bool verbose = false;
    u32 report_seconds = 10;  // 0: no reports of hits and flows
};

// Returns nothing, and sets *exit_code, if the process should exit: after --help, or for an invalid command
// line or map.
[[nodiscard]] std::optional<options> parse_options(int argc, char** argv, int* exit_code);

}  // namespace scc::kernel
