// The batch: requests for the asynchronous socket are gathered in one message, which goes out when a request
// does not fit, when it is full, at once while the client is not registered, and every 5 milliseconds.
#pragma once

#include <array>

#include "client/locks.h"
#include "client/send.h"
#include "msg/protocol.h"

extern "C" {
void _scc_lib_send_buff_init() SCC_REQUIRES(scc::batch_lock);
[[nodiscard]] scc::u32 _scc_lib_msg_send_bt(scc::u16 sub_id, scc::u16 type, const void* value, int len,
                                            int sync);
}

namespace scc {

// Sends an application's request through the batch. The results are those of _scc_lib_msg_send_bt.
[[nodiscard]] u32 send_in_batch(u16 sub_id, u16 type, const value_parts& value);

// Where to write the value of an item that only joins the waiting requests, as nearly all do. Null when it
// has to be flushed or fails, which is for send_in_batch: then nothing has happened.
[[nodiscard]] u8* join_batch(u16 sub_id, u16 type, u32 value_bytes) SCC_REQUIRES(batch_lock);

namespace batch_detail {

template <std::size_t Bytes, class Write>
[[gnu::noinline]] u32 send_written(u16 type, Write write) {
    std::array<u8, Bytes> value;
    write(value.data());
    return send_in_batch(0, type, {value});
}

}  // namespace batch_detail

// Sends a value of so many bytes that write(at) writes, straight into the batch. Inlined, so that numbers get
// there from registers: a load that spans several recent stores would have to wait for all of them.
template <std::size_t Bytes, class Write>
[[nodiscard, gnu::always_inline]] inline u32 send_in_batch(u16 type, Write write) {
    static_assert(Bytes < wire::oversized_value_bytes);
    {
        const write_guard guard(batch_lock);
        if (u8* const at = join_batch(0, type, Bytes); at != nullptr) [[likely]] {
            write(at);
            return 0;
        }
    }
    return batch_detail::send_written<Bytes>(type, write);
}

// Allocates the batch's block, which is never freed, or empties it. False without memory.
[[nodiscard]] bool prepare_batch();

// For the checker: sends the batch unless it is empty.
void flush_waiting_batch();

}  // namespace scc
