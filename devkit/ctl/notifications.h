// The daemon's notifications as JSON objects in the inbox.
#pragma once

#include "arguments.h"
#include "scclib.h"

namespace scc::ctl {

// Sets every notification handler. Each object has "notification" (the name), "type" (the message type)
// and the notification's fields.
void install_notifications(scc_handlers& handlers);

// One line of text.
[[nodiscard]] std::string notification_line(const json& notification);

}  // namespace scc::ctl
