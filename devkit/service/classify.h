// Matches packets against rules. Pure; any thread.
#pragma once

#include "service/packet.h"

namespace scc::service {

// Whether every condition of the rule holds for the packet. A rule with ports does not match later
// fragments, which carry none; a rule with addresses does not match ARP.
[[nodiscard]] bool matches(const ace::rule& rule, const packet& packet);

}  // namespace scc::service
