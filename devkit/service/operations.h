// What each operation that comes with a record does to the tables, and how it reads in the log. One
// overload of each for every record of the public header; `op` tells the two operations of a record
// apart. Callers hold the table's mutex.
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
// The two kinds of counter share one record, so each has a name.
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
