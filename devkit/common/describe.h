// One item as one line of text: its name, the fields listed in its row, and its first bytes.
#pragma once

#include <string>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::devkit {

[[nodiscard]] std::string describe(message_route route, const wire_item& item);
[[nodiscard]] std::string key_text(byte_view bytes, std::size_t offset);

}  // namespace scc::devkit
