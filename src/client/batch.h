// The batch: requests for the asynchronous socket are gathered in one message, which goes out when a request
// does not fit, when it is full, at once while the client is not registered, and every 5 milliseconds.
#pragma once

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

// Allocates the batch's block, which is never freed, or empties it. False without memory.
[[nodiscard]] bool prepare_batch();

// For the checker: sends the batch unless it is empty.
void flush_waiting_batch();

}  // namespace scc
