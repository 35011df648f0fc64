// What the security service reports, passed on to the applications, and notifications made from
// named fields for the control socket.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "sccd/daemon.h"

namespace scc::sccd {

// Results and reports of the service. False when the item is something that any client may send.
[[nodiscard]] bool take_report(Daemon& daemon, const Client& service, const devkit::Item& item);

struct Notification {
    u16 type = 0;
    devkit::Bytes value;
};

// Null for an unknown name; fields that are missing are zero. `problem` names a field that cannot be read.
[[nodiscard]] std::optional<Notification> named_notification(std::string_view name,
                                                             const nlohmann::json& fields,
                                                             std::string& problem);

}  // namespace scc::sccd
