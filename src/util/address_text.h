// Addresses as text in log lines, on the caller's stack: any thread, any number in one statement.
#pragma once

#include <netinet/in.h>

#include "msg/protocol.h"

namespace scc {

struct address_text {
    char text[INET6_ADDRSTRLEN];
};

[[nodiscard]] address_text ipv4_text(u32 network_order);
[[nodiscard]] address_text ipv6_text(const in6_addr& address);
[[nodiscard]] address_text mac_text(const u8* mac);

}  // namespace scc
