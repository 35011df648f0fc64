// The operations that restore a security service's state: everything that it was given before, between the
// start and the end of a data recovery.
#pragma once

#include <vector>

#include "sccd/acl_store.h"
#include "sccd/service_bridge.h"
#include "sccd/settings.h"
#include "sccd/user_store.h"

namespace scc::sccd {

[[nodiscard]] std::vector<service_operation> recovery_operations(const acl_store& acls,
                                                                 const user_store& users,
                                                                 const setting_store& settings);

// Single operations, the same for the first time and for a recovery.
// `value` is that of a request whose setting the service carries out.
[[nodiscard]] service_operation setting_operation(u16 type, devkit::byte_view value);
// The ACL of a user, as an application of its ACL to the user's frames.
[[nodiscard]] service_operation user_acl_operation(devkit::byte_view user_acl_record, bool apply);
[[nodiscard]] service_operation nac_user_operation(devkit::byte_view config_record, bool add);

}  // namespace scc::sccd
