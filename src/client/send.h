// Messages in real time, and what follows a send that failed.
//
// A failed send is not reported to the caller: the request is lost with the connection, the call returns 0,
// and the server-status handler tells the application. Only an allocation failure (12) and a value that is
// too large for the batch (22) come back. An exchange, which waits for a reply, needs to know more.
#pragma once

#include <cstddef>
#include <span>

#include "client/descriptors.h"
#include "msg/protocol.h"

extern "C" [[nodiscard]] scc::u32 _scc_lib_msg_send_rt(scc::u16 sub_id, scc::u16 type, const void* value,
                                                       int len, int sync);

namespace scc {

// A value that is gathered from two places: what the library writes, then the caller's record.
struct value_parts {
    std::span<const u8> head;
    std::span<const u8> tail{};

    [[nodiscard]] std::size_t size() const { return head.size() + tail.size(); }
    void copy_to(u8* at) const;
};

// A value as the functions with C linkage get it; a negative length is none.
[[nodiscard]] value_parts value_of(const void* value, int len);

// What became of a message.
struct send_outcome {
    u32 error = 0;         // 0, 12 without memory, or the error of sending
    bool built = true;     // false without memory: nothing was tried
    bool in_part = false;  // a part went out: the daemon's stream is out of step

    // What a request tells its caller.
    [[nodiscard]] u32 told() const { return built ? 0 : error; }
};

// Sends all of it, on the connection that the epoch names.
[[nodiscard]] send_outcome send_bytes(channel which, u32 epoch, std::span<const u8> bytes);
// Builds a message of one item and sends it. Logs a failure in the name of _scc_lib_msg_send_rt.
[[nodiscard]] send_outcome send_one_item(channel which, u32 epoch, u16 sub_id, u16 type,
                                         const value_parts& value);
// What a request does after its send failed; function names the path in the log. No lock of the send path
// may be held but scc_send_buf_lock.
void recover_from_failed_send(const send_outcome& outcome, u32 epoch, const char* function);

// The event loop's part, filled in when its first agent starts.
struct agent_hooks {
    // Ends the connection that the epoch names and starts the reconnection.
    void (*recover)(u32 epoch, const char* function);
    void (*cancel_tasks)();
};

void set_agent_hooks(const agent_hooks* hooks);
// Null in thread mode.
[[nodiscard]] const agent_hooks* active_agent_hooks();

}  // namespace scc
