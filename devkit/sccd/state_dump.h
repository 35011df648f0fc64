// The daemon's state as JSON, for the control socket.
#pragma once

#include "sccd/acl_store.h"
#include "sccd/json_fields.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

[[nodiscard]] json dump_acls(const acl_store& acls);
[[nodiscard]] json dump_counters(const acl_store& acls);
[[nodiscard]] json dump_users(const config_records& records);
[[nodiscard]] json dump_settings(const daemon_settings& settings);

}  // namespace scc::sccd
