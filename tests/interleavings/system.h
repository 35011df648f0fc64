// What the library uses of the system: locks, conditions, memory and sockets. The build renames the library's
// calls to those here (names that begin with woven_); the driver's own calls stay as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "scheduler.h"

namespace interleavings {

// Opens a socket to this connection of the daemon, with the lowest free number, like the kernel.
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

// Allocated blocks of the library's heap.
[[nodiscard]] unsigned live_blocks();
// Reports a heap access outside every live block.
void check_heap(const volatile void* at, std::size_t size);

void reset_system();

}  // namespace interleavings
