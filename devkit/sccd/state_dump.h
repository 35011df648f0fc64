// The daemon's state as JSON, for the control socket and the state file.
#pragma once

#include <string>

#include "sccd/daemon_core.h"
#include "sccd/json_fields.h"

namespace scc::sccd {

[[nodiscard]] json dump_acls(const acl_store& acls);
[[nodiscard]] json dump_counters(const acl_store& acls);
[[nodiscard]] json dump_users(const config_records& records);
// The records of one kind of setting, by the names of its fields.
[[nodiscard]] json dump_setting(const setting_store& settings, const setting_row& row);
// Every kind of which there is a record.
[[nodiscard]] json dump_settings(const setting_store& settings);
[[nodiscard]] json dump_state(const daemon_core& daemon);

// Fills an empty daemon with what dump_state gave. Returns the first problem with its place; empty if there
// is none.
[[nodiscard]] std::string load_state(daemon_core& daemon, const json& state);

}  // namespace scc::sccd
