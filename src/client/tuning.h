// The numbers that trade memory for speed. None of them changes what the library does or sends.
#pragma once

#include <cstddef>

#include "msg/protocol.h"

namespace scc::tuning {

// The index of pending calls before it grows: in the binary, so that a small client allocates no table.
inline constexpr std::size_t first_call_buckets = 1024;
// When it grows, its buckets move so many under one hold of the lock, for some 10 us, and so many in one pass
// of the checker, which has requests to send.
inline constexpr std::size_t buckets_moved_at_once = 64;
inline constexpr std::size_t buckets_moved_a_pass = 32768;
// Saved calls that no lookup has moved to the index; a push into a full ring takes the lock of the index.
inline constexpr std::size_t saved_calls_max = 1024;
// Blocks kept for the next requests: the requests that may be under way before the allocator is used again.
inline constexpr std::size_t spare_blocks_max = 8192;
// Results looked up under one lock, so that the cache misses of the lookups overlap.
inline constexpr std::size_t calls_in_hand_max = 32;
// The lock is held for lookups, which take less time than putting a thread to sleep and waking it.
inline constexpr int lock_spins = 200;
// Moving a call to the index takes little time, so its cache lines are fetched several calls ahead.
inline constexpr std::size_t saved_calls_ahead = 8;
// A request does more with its block, so the next block is enough, and of a long one its beginning.
inline constexpr std::size_t spare_blocks_ahead = 1;
inline constexpr std::size_t spare_prefetch_max_bytes = 1024;
// A cached ACE is linked by its number, which lies in the first 320 bytes of the saved call: they are fetched
// while the handlers of two earlier results run.
inline constexpr std::size_t cached_prefetch_bytes = 320;
inline constexpr std::size_t cached_calls_ahead = 2;
// The index of cached ACLs before it grows: in the binary, like that of pending calls.
inline constexpr std::size_t first_acl_slots = 256;
// One read of the asynchronous socket: several hundred results, the messages of a busy daemon.
inline constexpr std::size_t receive_buffer_bytes = 16384;
// Spare blocks are freed when none was used for 20 flush intervals, which is a pause, not a gap in a burst.
inline constexpr u32 passes_between_maintenance = 20;
// A queue this long has used enough memory to be worth a trim, which is too slow to do more often.
inline constexpr u32 long_queue_messages = 1024;
// Above the size from which glibc's free coalesces (64 KB), below the size that it maps (128 KB).
inline constexpr std::size_t coalescing_block_bytes = std::size_t{96} * 1024;

}  // namespace scc::tuning
