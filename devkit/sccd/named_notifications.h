// Builds notifications from the named fields of a control request. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sccd/json_fields.h"

namespace scc::sccd {

struct notification_item {
    u16 type = 0;
    devkit::byte_buffer value;
};

// On an unknown name, an unknown field or one that cannot be read, returns nothing and sets `problem`.
// Missing fields are zero.
[[nodiscard]] std::optional<notification_item> named_notification(std::string_view name, const json& request,
                                                                  std::string& problem);

}  // namespace scc::sccd
