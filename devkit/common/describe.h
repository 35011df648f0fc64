// One item as one line of text: its name, its fields and its bytes.
#pragma once

#include <string>
#include <vector>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::devkit {

enum class trace_detail : u8 {
    brief,  // the main fields and the first bytes
    full,   // every field, with the names of numbers, and all bytes
};

struct shown_field {
    std::string name;  // of a list's element: "moves[0].ifx"
    std::string text;
};

// The fields that lie within the value. In a brief list, only the first element of a list is shown.
[[nodiscard]] std::vector<shown_field> fields_of(const message_type& type, byte_view value,
                                                 trace_detail detail);
[[nodiscard]] std::string describe(message_route route, const wire_item& item,
                                   trace_detail detail = trace_detail::brief);
[[nodiscard]] std::string key_text(byte_view bytes, std::size_t offset);

}  // namespace scc::devkit
