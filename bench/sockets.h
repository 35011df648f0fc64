// Blocking loops over a stream socket. They exit when the peer has closed it.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace bench {

void send_all(int fd, const scc::u8* bytes, std::size_t length);
void receive_exactly(int fd, scc::u8* bytes, std::size_t length);

}  // namespace bench
