// One item in one line of text: its name, the fields its row lists, and its first bytes.
#pragma once

#include <string>

#include "common/frame.h"
#include "common/messages.h"

namespace scc::devkit {

[[nodiscard]] std::string describe(Route route, const Item& item);
[[nodiscard]] std::string key_text(View bytes, std::size_t offset);

}  // namespace scc::devkit
