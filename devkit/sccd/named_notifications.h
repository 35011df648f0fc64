// Notifications made from the named fields of a control request. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sccd/json_fields.h"

namespace scc::sccd {

struct Notification {
    u16 type = 0;
    devkit::Bytes value;
};

// Empty for an unknown name or a field that the notification does not have or that cannot be read;
// `problem` then says what is wrong. Fields that are missing are zero.
[[nodiscard]] std::optional<Notification> named_notification(std::string_view name, const Json& request,
                                                             std::string& problem);

}  // namespace scc::sccd
