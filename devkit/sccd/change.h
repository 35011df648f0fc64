// A change of the daemon's state takes effect immediately, so that the following requests of the same
// message see it. It is undone if the security service fails to carry it out.
#pragma once

#include <functional>
#include <utility>

#include "msg/protocol.h"

namespace scc::sccd {

struct state_change {
    u32 result = 0;              // if not 0, nothing was changed
    std::function<void()> undo;  // may be empty

    static state_change refused(u32 result) { return {result, {}}; }
    static state_change made(std::function<void()> undo = {}) { return {0, std::move(undo)}; }
};

namespace result {
inline constexpr u32 ok = 0;
inline constexpr u32 not_found = 2;          // ENOENT
inline constexpr u32 invalid_argument = 22;  // EINVAL
inline constexpr u32 no_space = 28;          // ENOSPC
inline constexpr u32 registration_rejected = 2000;
inline constexpr u32 already_registered = 2002;
inline constexpr u32 already_unregistered = 2003;
inline constexpr u32 no_such_acl = 2005;
inline constexpr u32 no_such_ace = 2006;
inline constexpr u32 not_applied = 2008;
inline constexpr u32 already_applied = 2009;
inline constexpr u32 acl_exists = 2010;
inline constexpr u32 ace_exists = 2011;
inline constexpr u32 no_such_http_port = 2014;
inline constexpr u32 no_such_direct_host = 2015;
inline constexpr u32 no_such_direct_site = 2016;
inline constexpr u32 service_timeout = 2020;
}  // namespace result

}  // namespace scc::sccd
