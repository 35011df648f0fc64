// The calls whose results are awaited. scc_call_data_lock guards them, and is never held across a send.
// Saving a call needs only scc_lib_lock, which every request holds, unless the ring of saved calls is full.
#pragma once

#include <cstddef>
#include <span>

#include "client/locks.h"
#include "client/tuning.h"
#include "client/value_parts.h"
#include "msg/protocol.h"
#include "util/list.h"

namespace scc {

// One heap block: this head, followed by data_bytes of the caller's request.
struct pending_call {
    list_node link;
    u32 call_id;
    u32 kind;
    i32 data_bytes;

    [[nodiscard]] const u8* data() const { return reinterpret_cast<const u8*>(this) + head_bytes; }
    [[nodiscard]] u8* data() { return reinterpret_cast<u8*>(this) + head_bytes; }

    static constexpr std::size_t head_bytes = 32;
};

static_assert(sizeof(pending_call) == pending_call::head_bytes);

// In two steps: a call whose data the caller then writes, null and logged without memory, and its keeping.
[[nodiscard]] pending_call* new_call(u32 call_id, u32 kind, std::size_t data_bytes) SCC_REQUIRES(lib_lock);
void keep_call(pending_call* call) SCC_REQUIRES(lib_lock);
// Both, with a copy of the data. 12 without memory.
[[nodiscard]] u32 save_call(u32 call_id, u32 kind, const value_parts& data) SCC_REQUIRES(lib_lock);
// Takes the oldest call of this id out of the list; null when there is none. The caller frees it with
// release_pending_call.
[[nodiscard]] pending_call* take_pending_call(u32 call_id);
void release_pending_call(pending_call* call);
// The same for many, under one lock. Null entries are skipped.
void release_pending_calls(std::span<pending_call* const> calls);

// The calls of results that arrived together, found under one lock. Until it is taken, a call in hand is
// still pending: dropping or deleting pending calls includes it.
class calls_in_hand {
  public:
    static constexpr std::size_t most = tuning::calls_in_hand_max;

    // Looks up the calls of these ids, no more than `most`, in order.
    explicit calls_in_hand(std::span<const u32> ids);
    ~calls_in_hand();
    calls_in_hand(const calls_in_hand&) = delete;
    calls_in_hand& operator=(const calls_in_hand&) = delete;

    // Takes the call of the i-th id, which then is the caller's; null when there is none. Once for each i.
    [[nodiscard]] pending_call* take(std::size_t i);
    // The call that take(i) may return, for a prefetch only: it may be freed at any time.
    [[nodiscard]] const pending_call* peek(std::size_t i) const;

  private:
    std::span<const u32> ids_;
    bool holds_;  // false when another object holds the calls in hand
};
[[nodiscard]] std::size_t pending_calls();
void free_pending_calls();
void init_pending_calls();
// For the checker thread, so that a request allocates at most its own block: the first grows the index, the
// second frees the spare blocks if none was used since its last call.
void grow_pending_index();
void free_idle_blocks();

}  // namespace scc

extern "C" {
[[nodiscard]] scc::u32 _scc_lib_call_id_get() SCC_REQUIRES(scc::lib_lock);
[[nodiscard]] scc::u32 _scc_lib_save_call_data(scc::u32 call_id, scc::u32 kind, const void* data, int len)
    SCC_REQUIRES(scc::lib_lock);

void _scc_lib_del_call_data(scc::u32 call_id);
}
