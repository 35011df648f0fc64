// The ACLs that the development daemon holds, whoever created them, through its control socket. Blocking; any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "acl_file.h"
#include "arguments.h"

namespace scc::ctl {

// Everything the daemon holds. On failure `problem` is the reason; `unreachable` tells that there is no
// daemon.
struct daemon_acls {
    std::optional<acl_file> acls;
    std::string problem;
    bool unreachable = false;
};

[[nodiscard]] daemon_acls read_daemon_acls();

// The reply of the daemon's command "acls" as ACLs. Empty if it is malformed.
[[nodiscard]] std::optional<acl_file> acls_of_reply(const json& reply);

}  // namespace scc::ctl
