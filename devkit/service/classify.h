// Which rule of an ACL a packet meets. Pure; any thread.
#pragma once

#include "service/packet.h"

namespace scc::service {

// Whether every condition of the rule holds for the packet. A rule about ports does not match the later
// fragments of a packet, which carry none; a rule about addresses does not match ARP.
[[nodiscard]] bool matches(const ace::rule& rule, const packet& packet);

}  // namespace scc::service
