// Notifications made from the named fields of a control request. Pure.
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

// Empty for an unknown name or a field that the notification does not have or that cannot be read;
// `problem` then says what is wrong. Fields that are missing are zero.
[[nodiscard]] std::optional<notification_item> named_notification(std::string_view name, const json& request,
                                                                  std::string& problem);

}  // namespace scc::sccd
