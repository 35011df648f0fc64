// Real-time sending, and recovery from a failed send.
//
// A failed send is not reported to the caller: the request is lost with the connection, the call returns 0,
// and the server-status handler tells the application. Only an allocation failure (12) and a value that is
// too large for the batch (22) come back. An exchange, which waits for a reply, needs to know more.
#pragma once

#include <cstddef>
#include <span>

#include "client/descriptors.h"
#include "client/value_parts.h"
#include "msg/protocol.h"

extern "C" [[nodiscard]] scc::u32 _scc_lib_msg_send_rt(scc::u16 sub_id, scc::u16 type, const void* value,
                                                       int len, int sync);

namespace scc {

struct send_outcome {
    u32 error = 0;         // 0, 12 without memory, or the error of sending
    bool built = true;     // false without memory: nothing was tried
    bool in_part = false;  // only a part went out: the daemon's stream is out of step

    // What a request returns to its caller.
    [[nodiscard]] u32 reported() const { return built ? 0 : error; }
};

// Sends all bytes, on the connection that the epoch names.
[[nodiscard]] send_outcome send_bytes(channel which, u32 epoch, std::span<const u8> bytes);
// Builds a message of one item and sends it. Logs a failure in the name of _scc_lib_msg_send_rt.
[[nodiscard]] send_outcome send_one_item(channel which, u32 epoch, u16 sub_id, u16 type,
                                         const value_parts& value);
// What a request does after its send failed. Logs in the name of function. Of the locks only scc_lib_lock
// and scc_send_buf_lock may be held.
void recover_from_failed_send(const send_outcome& outcome, u32 epoch, const char* function);

// The event loop's part, set by the first agent's start.
struct agent_hooks {
    // Ends the connection that the epoch names and starts the reconnection.
    void (*recover)(u32 epoch, const char* function);
    void (*cancel_tasks)();
};

void set_agent_hooks(const agent_hooks* hooks);
// Null in thread mode.
[[nodiscard]] const agent_hooks* active_agent_hooks();

}  // namespace scc
