// Where an ACL is applied: the interface, the direction, and the frames that it sees there. Pure; any thread.
#pragma once

#include <string>
#include <vector>

#include "ace/ace_layout.h"
#include "common/bytes.h"

namespace scc::service {

struct application_place {
    u32 ifx = 0;  // 0: every interface
    bool enters = true;
    // The frames of the user that the ACL is bound to: those that match one of these. None match two. Empty:
    // all frames.
    std::vector<ace::rule> frames;
};

[[nodiscard]] application_place place_of(const scc_acl_apply_record& record);
// " mac 02:00:00:00:00:09 ip 10.0.0.9", or nothing without a user.
[[nodiscard]] std::string user_text_of(const scc_acl_apply_record& record);
// "in ifx 1", and the user.
[[nodiscard]] std::string text_of(const scc_acl_apply_record& record);

}  // namespace scc::service
