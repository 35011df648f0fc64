// The command line of scc-ss-dev.
#pragma once

#include <optional>
#include <string>

#include "service/capture.h"
#include "service/security_service.h"

namespace scc::service {

struct options {
    answer_policy policy;
    bool verbose = false;
    std::string capture_path;   // empty: none
    std::size_t run_after = 0;  // applied ACLs that start the capture; 0: only the signal does
    ingress_map ingress;
};

// Returns nothing, and sets *exit_code, if the process should exit: after --help or an invalid command line.
[[nodiscard]] std::optional<options> parse_options(int argc, char** argv, int* exit_code);

}  // namespace scc::service
