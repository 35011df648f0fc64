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
    std::size_t run_after = 0;  // applied ACLs that start the capture; 0 = the signal alone
    ingress_map ingress;
};

// Nothing when the process is to end with *exit_code: help was asked for, or the line is wrong.
[[nodiscard]] std::optional<options> parse_options(int argc, char** argv, int* exit_code);

}  // namespace scc::service
