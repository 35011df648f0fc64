// The daemon's state as JSON, for the control socket.
#pragma once

#include <nlohmann/json.hpp>

#include "sccd/acl_store.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

[[nodiscard]] nlohmann::json dump_acls(const AclStore& acls);
[[nodiscard]] nlohmann::json dump_counters(const AclStore& acls);
[[nodiscard]] nlohmann::json dump_users(const ConfigRecords& records);
[[nodiscard]] nlohmann::json dump_settings(const Settings& settings);

}  // namespace scc::sccd
