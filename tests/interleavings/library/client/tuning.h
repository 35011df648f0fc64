// The library's tuning with numbers so small that a few operations fill the rings and the queue. The compiler
// finds this file before src/client/tuning.h. None of the numbers changes what the library does.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace scc::tuning {

inline constexpr std::size_t first_call_buckets = 2;
inline constexpr std::size_t buckets_moved_at_once = 1;
inline constexpr std::size_t buckets_moved_a_pass = 2;
inline constexpr std::size_t saved_calls_max = 2;
inline constexpr std::size_t spare_blocks_max = 2;
inline constexpr std::size_t calls_in_hand_max = 2;
inline constexpr int lock_spins = 1;
inline constexpr std::size_t saved_calls_ahead = 1;
inline constexpr std::size_t spare_blocks_ahead = 1;
inline constexpr std::size_t spare_prefetch_max_bytes = 64;
inline constexpr std::size_t cached_prefetch_bytes = 64;
inline constexpr std::size_t cached_calls_ahead = 1;
inline constexpr std::size_t first_acl_slots = 2;
inline constexpr std::size_t receive_buffer_bytes = 64;
inline constexpr u32 passes_between_maintenance = 1;
inline constexpr u32 long_queue_messages = 2;
inline constexpr std::size_t coalescing_block_bytes = 64;

}  // namespace scc::tuning
