// The daemon's state as JSON, for the control socket.
#pragma once

#include "sccd/acl_store.h"
#include "sccd/json_fields.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

[[nodiscard]] Json dump_acls(const AclStore& acls);
[[nodiscard]] Json dump_counters(const AclStore& acls);
[[nodiscard]] Json dump_users(const ConfigRecords& records);
[[nodiscard]] Json dump_settings(const Settings& settings);

}  // namespace scc::sccd
