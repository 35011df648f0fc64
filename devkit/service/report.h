// Reports the results of a capture to the daemon. Call without the library's lock; any thread.
#pragma once

#include <string>

#include "service/capture.h"

namespace scc::service {

// How the notifications of one report were sent.
struct report_outcome {
    u64 sent = 0;
    u64 failed = 0;
    u32 last_error = 0;
};

// Sends, in this order, moved addresses, ACE counters of each applied ACL, flows and silent users. Long
// lists are split into several notifications, each of which fits into one message.
report_outcome send_report(const capture_report& report);

// The counters of one ACL.
void send_counters(const acl_counters& acl, report_outcome& outcome);

[[nodiscard]] std::string summary_of(const capture_report& report);

}  // namespace scc::service
