// Splits the bytes of the asynchronous socket into messages, for the receive threads.
//
// One read may bring many small messages; a message larger than one read is completed in its own memory.
// Used by one thread, for one connection at a time: the next one starts with reset().
#pragma once

#include <cstddef>

#include "client/tuning.h"
#include "msg/protocol.h"

namespace scc {

class message_stream {
  public:
    message_stream() = default;
    ~message_stream();
    message_stream(const message_stream&) = delete;
    message_stream& operator=(const message_stream&) = delete;

    // Forgets the bytes of an earlier connection.
    void reset();

    // The next whole message, which the caller frees; null when more bytes are needed. 2007 for a header
    // without items (its 8 bytes are skipped) and for items that do not fit; 12 when there is no memory
    // (the message is skipped).
    [[nodiscard]] u32 next(void** message);

    // One read of a socket that is readable. 0, 32 when the peer closed, or the error.
    [[nodiscard]] u32 fill(int fd);

  private:
    [[nodiscard]] std::size_t buffered() const { return end_ - begin_; }
    void consume(void* to, std::size_t count);
    void skip_unwanted();
    [[nodiscard]] u32 begin_message();
    [[nodiscard]] u32 finish_message(void** message);

    u8 buffer_[tuning::receive_buffer_bytes];
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    u8* message_ = nullptr;  // being completed
    std::size_t length_ = 0;
    std::size_t filled_ = 0;
    std::size_t unwanted_ = 0;  // bytes of a message for which there was no memory
};

}  // namespace scc
