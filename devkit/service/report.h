// Telling the daemon what a capture has shown. Called without the library's lock; any thread.
#pragma once

#include <string>

#include "service/capture.h"

namespace scc::service {

// What became of the notifications of one report.
struct report_outcome {
    u64 sent = 0;
    u64 failed = 0;
    u32 last_error = 0;
};

// Sends, in this order, moved addresses, ACE counters of each applied ACL, flows and silent users. Long
// lists are cut into several notifications, each of which fits one message.
report_outcome send_report(const capture_report& report);

[[nodiscard]] std::string summary_of(const capture_report& report);

}  // namespace scc::service
