// What a security service is told when it returns: everything it had been given, between the start
// and the end of a data recovery, as the same operations that gave it the first time.
#pragma once

#include <vector>

#include "sccd/acl_store.h"
#include "sccd/service_bridge.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

[[nodiscard]] std::vector<Operation> recovery_operations(const AclStore& acls, const UserStore& users,
                                                         const Settings& settings);

// Single operations, the same whether they are carried out for the first time or recovered.
[[nodiscard]] Operation nac_app_operation(const NacApp& app, u32 operation_word);
[[nodiscard]] Operation nac_user_operation(devkit::View config_record, bool add);
[[nodiscard]] Operation http_port_operation(u32 port, bool add);

}  // namespace scc::sccd
