// Wire messages: splits a received byte stream into messages, and builds messages.
//
//   message := header item*
//   header  := u32 len (whole message)  u8 ver (1)  u16 num (items)  u8 zero          8 bytes
//   item    := u32 len (of the value)   u16 sub_id  u16 type         value[len]       8 + len bytes
//
// No received length is trusted. Pure; any thread.
#pragma once

#include <string_view>
#include <vector>

#include "common/bytes.h"

namespace scc::devkit {

struct wire_item {
    u16 sub_id = 0;
    u16 type = 0;
    byte_view value;  // points into the stream it was read from
};

enum class frame_state : u8 {
    incomplete,  // more bytes are needed
    complete,    // `items` holds the message
    refused,     // malformed; its `len` bytes can be skipped
    broken,      // the length itself is invalid: the stream cannot be resynchronised
};

struct message_frame {
    frame_state state = frame_state::incomplete;
    u32 len = 0;
    std::vector<wire_item> items;
    std::string_view problem;  // why a frame is refused or broken
};

// Reads the first message of `stream`; one longer than `len_max` breaks the stream.
[[nodiscard]] message_frame first_frame(byte_view stream, u32 len_max);

// Collects items into one message.
class message_builder {
  public:
    message_builder() { clear(); }

    void add(u16 sub_id, u16 type, byte_view value);
    [[nodiscard]] bool empty() const { return count_ == 0; }
    // Whether an item with a value of this length still fits into a message of `message_max` bytes.
    [[nodiscard]] bool fits(std::size_t value_len, std::size_t message_max) const;
    [[nodiscard]] byte_buffer take();

  private:
    void clear();

    byte_buffer message_;
    u16 count_ = 0;
};

[[nodiscard]] byte_buffer single_item_message(u16 sub_id, u16 type, byte_view value);

}  // namespace scc::devkit
