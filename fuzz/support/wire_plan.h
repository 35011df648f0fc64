// Messages built from a fuzzer's input: mostly well formed, with values of about the length that their type
// needs, so that mutations reach the code that reads them; occasionally with a false header.
//
//   message := twist items {item}
//     twist: 0xF0 and above spoils the message (see spoil), anything else leaves it well formed
//     items: 1 to 8, or from 0xE0 on up to 256 times the one item that follows
//   item    := type length given {byte}
//     type:   a row of the table, or from 0xF0 on any type (u16)
//     length: below 0x80 that many bytes; then the row's least length and up to 63 more; then down to 62
//             less; 0xFF any length (u16)
//     given:  how many bytes of the value follow; the others are 0. From 0xC0 on, given - 0xC0 bytes follow,
//             then the last 16 of the value, where records have their operation
#pragma once

#include <span>
#include <vector>

#include "support/input.h"

namespace scc::fuzz {

struct planned_type {
    u16 type;
    u32 least_bytes;
};

// Appends one item, without a message around it.
void append_planned_item(input& from, std::span<const planned_type> types, std::vector<u8>& stream);

// Appends one message to the stream.
void append_planned_message(input& from, std::span<const planned_type> types, std::vector<u8>& stream);

// A message of one item, as the answer of a fake daemon.
void append_message(std::vector<u8>& stream, u16 sub_id, u16 type, std::span<const u8> value);

// Checks that the whole messages of a stream are well formed. Calls `item` for each item, and returns how
// many bytes belong to whole messages.
std::size_t walk_messages(std::span<const u8> stream,
                          void (*item)(void* context, u16 sub_id, u16 type, std::span<const u8> value),
                          void* context);

}  // namespace scc::fuzz
