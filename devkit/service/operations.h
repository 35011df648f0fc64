// Carries out the operations that come with a record, and describes them for the log. One overload for
// each record of the public header; `op` distinguishes the two operations of a record. Callers hold the
// table's mutex.
#pragma once

#include <string>

#include "service/forwarding_table.h"

namespace scc::service {

// Returns the result for the daemon; the counter operation also fills in its counter.
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_acl_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_ace_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_apply_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_resequence_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_svi_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_eport_operation& operation);
[[nodiscard]] u32 perform(forwarding_table::contents& held, scc_ss_cpp_operation& operation);
// Both counter operations use the same record.
[[nodiscard]] u32 perform_acl_counter(forwarding_table::contents& held, scc_ss_counter_operation& operation);
[[nodiscard]] u32 perform_ace_counter(forwarding_table::contents& held, scc_ss_counter_operation& operation);

[[nodiscard]] std::string describe(const scc_ss_acl_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_ace_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_apply_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_resequence_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_svi_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_eport_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_cpp_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_counter_operation& operation);
[[nodiscard]] std::string describe(const scc_ss_user& user);

}  // namespace scc::service
