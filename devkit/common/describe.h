// One item in one line of text: its name, the fields its row lists, and its first bytes.
#pragma once

#include <string>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::devkit {

[[nodiscard]] std::string describe(message_route route, const wire_item& item);
[[nodiscard]] std::string key_text(byte_view bytes, std::size_t offset);

}  // namespace scc::devkit
