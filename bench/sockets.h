// Blocking loops over a stream socket; the other end's absence is the end of the process.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace bench {

void send_all(int fd, const scc::u8* bytes, std::size_t length);
void receive_exactly(int fd, scc::u8* bytes, std::size_t length);

}  // namespace bench
