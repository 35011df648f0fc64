// What the library takes from the system: locks, conditions, memory and sockets. The build renames its calls,
// so they arrive here (names that begin with woven_) and those of the driver do not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "scheduler.h"

namespace interleavings {

// A new socket with the lowest free number, as the kernel gives it, to this connection of the daemon.
[[nodiscard]] int open_socket(unsigned connection);
// The connection that the number stands for; 0 when it is closed.
[[nodiscard]] unsigned connection_of(int fd);
[[nodiscard]] bool is_shut_down(int fd);
[[nodiscard]] unsigned open_sockets();

// What was sent, in order.
struct sent_bytes {
    unsigned connection;
    std::span<const std::uint8_t> bytes;
};
[[nodiscard]] std::span<const sent_bytes> sent();

// Waits that ended because no other thread could go on.
[[nodiscard]] unsigned waits_timed_out();

// Blocks of the library's heap that live.
[[nodiscard]] unsigned live_blocks();
// Reports an access to the heap that is in no live block.
void check_heap(const volatile void* at, std::size_t size);

void reset_system();

}  // namespace interleavings
