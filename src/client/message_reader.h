// Reads one message at a time from a socket and not a byte more: replies on the synchronous socket, and what
// an event loop or a registration reads on the asynchronous one.
//
// An interrupted read keeps its position, so the next one continues the same message and the stream stays in
// step. The bytes belong to one connection; the next connection starts afresh.
#pragma once

#include <cstddef>

#include "client/descriptors.h"
#include "client/locks.h"
#include "msg/protocol.h"

extern "C" [[nodiscard]] scc::u32 _scc_lib_msg_recv(void** out, int sync);

namespace scc {

enum class message_end : u8 {
    not_reached,  // receiving failed; the rest, or the message, is still to come
    refused,      // 2007 for a header without items, or 12 for lack of memory: the message is skipped
    dropped,      // 2007 for items that exceed the message, which was read whole
    whole,
};

struct received_message {
    u32 error;      // 0, 2007, 12, 32 or the error of receiving
    void* message;  // to be freed by the caller; null on error
    message_end end;
};

// A channel's reader. Its caller holds the channel's lock.
class message_reader {
  public:
    // Reads the next message, or the rest of the one that an interrupted read has begun.
    [[nodiscard]] received_message receive(channel which, u32 epoch);

  private:
    void begin_connection(u32 epoch);
    [[nodiscard]] received_message read_message(channel which, int fd);
    [[nodiscard]] u32 read_header(int fd, int sync);
    [[nodiscard]] u32 read_body(int fd);
    [[nodiscard]] u32 read_past_body(int fd);
    [[nodiscard]] received_message finish();

    u32 epoch_ = any_epoch;
    u8 header_[wire::header_bytes] = {};
    std::size_t filled_ = 0;  // bytes of the message that have been read, header included
    u8* message_ = nullptr;   // null until there is a header, and without memory
    bool unwanted_ = false;   // there was no memory: the body is skipped
};

// The state of one socket's conversation with the daemon.
struct channel_state {
    mutex lock;  // held while reading, and over a whole exchange
    message_reader reader SCC_GUARDED_BY(lock);
    u32 owed_epoch SCC_GUARDED_BY(lock) = any_epoch;  // the connection that the replies are owed on
    u32 owed SCC_GUARDED_BY(lock) = 0;  // replies that earlier exchanges have asked for and not read
};

[[nodiscard]] channel_state& state_of(channel which);

// The next message of the connection that the epoch names.
[[nodiscard]] received_message receive_message(channel which, u32 epoch);

}  // namespace scc
