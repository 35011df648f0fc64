// The way out: real-time messages, the batch, and whole messages in.
//
// A failed send is not reported to the caller: the request is lost with the connection, the call is 0, and
// the server-status handler tells the application. Only an allocation failure (12) and a value that is too
// large for the batch (22) come back.
#pragma once

#include <atomic>
#include <cstddef>
#include <span>

#include "client/descriptors.h"
#include "msg/protocol.h"

extern "C" {
void _scc_lib_data_init();
void _scc_lib_data_free();
void _scc_lib_send_buff_init();
[[nodiscard]] scc::u32 _scc_lib_msg_send(scc::u16 type, const void* value, int len, int sync);
[[nodiscard]] scc::u32 _scc_lib_ss_msg_send(scc::u16 sub_id, scc::u16 type, const void* value, int len,
                                            int sync);
[[nodiscard]] scc::u32 _scc_lib_msg_send_rt(scc::u16 sub_id, scc::u16 type, const void* value, int len,
                                            int sync);
[[nodiscard]] scc::u32 _scc_lib_msg_send_bt(scc::u16 sub_id, scc::u16 type, const void* value, int len,
                                            int sync);
[[nodiscard]] scc::u32 _scc_lib_msg_recv(void** out, int sync);
}

namespace scc {

// A value that is gathered from two places: what the library writes in front, and the caller's record.
struct value_parts {
    std::span<const u8> head;
    std::span<const u8> tail{};

    [[nodiscard]] std::size_t size() const { return head.size() + tail.size(); }
    void copy_to(u8* at) const;
};

// A request of an application, by way of the batch. The results are those of _scc_lib_msg_send_bt.
[[nodiscard]] u32 send_in_batch(u16 sub_id, u16 type, const value_parts& value);

// The event-loop agent's way back after a failed send, filled in when it starts: ends the connection that
// the epoch names and starts the agent's reconnection.
extern constinit std::atomic<void (*)(u32 epoch)> g_agent_recovery;

// While one lives, the thread's sends and receives belong to the connection that stood when it was made:
// a request that was accepted on one connection never goes out on the next, before its registration.
class connection_scope {
  public:
    connection_scope();
    explicit connection_scope(u32 epoch);
    ~connection_scope();
    connection_scope(const connection_scope&) = delete;
    connection_scope& operator=(const connection_scope&) = delete;

  private:
    u32 before_;
};

// The epoch of the thread's scope, or of the connection as it stands.
[[nodiscard]] u32 epoch_of_this_thread();

// The checker's part: sends the batch, if there is one.
void flush_waiting_batch();

}  // namespace scc
