// The daemon's notifications as JSON objects in the inbox.
#pragma once

#include <string>
#include <vector>

#include "arguments.h"
#include "scclib.h"

namespace scc::ctl {

// Sets every notification handler. Each object has "notification" (the name), "type" (the message type)
// and the notification's fields.
void install_notifications(scc_handlers& handlers);

// The names of the fields of these notifications, in order; of all if none is named.
[[nodiscard]] std::vector<std::string> notification_fields(const std::vector<std::string>& notifications);

// One line of text.
[[nodiscard]] std::string notification_line(const json& notification);

}  // namespace scc::ctl
