#include "service/operations.h"

#include <fmt/format.h>

#include "common/value_names.h"
#include "scc_records.h"

namespace scc::service {
namespace {

std::string describe(const scc_acl_key& key) {
    return fmt::format("acl {}/{}/{}", key.vdev_id, key.app_type, key.acl_id);
}

std::string describe_direction(u32 direction) {
    const std::string_view name = devkit::name_of(devkit::names::direction, direction);
    return name.empty() ? fmt::format("direction {}", direction) : std::string(name);
}

}  // namespace

u32 perform(forwarding_table::contents& held, scc_ss_acl_operation& operation) {
    return operation.op == SCC_SS_OP_CREATE ? held.acls.create(operation.key)
                                            : held.acls.remove(operation.key);
}

u32 perform(forwarding_table::contents& held, scc_ss_ace_operation& operation) {
    return operation.op == SCC_SS_OP_ADD_ACE ? held.acls.add_ace(operation.key, operation.ace)
                                             : held.acls.delete_ace(operation.key, operation.ace);
}

u32 perform(forwarding_table::contents& held, scc_ss_apply_operation& operation) {
    return operation.op == SCC_SS_OP_APPLY ? held.acls.apply(operation.apply)
                                           : held.acls.unapply(operation.apply);
}

u32 perform(forwarding_table::contents& held, scc_ss_resequence_operation& operation) {
    return held.acls.resequence(operation.key, operation.sn_start, operation.sn_inc);
}

u32 perform(forwarding_table::contents& held, scc_ss_svi_operation& operation) {
    held.nac.set_router_acl(operation.open != 0);
    return 0;
}

u32 perform(forwarding_table::contents& held, scc_ss_eport_operation& operation) {
    held.nac.set_egress_port(operation.ifx, operation.set != 0);
    return 0;
}

u32 perform(forwarding_table::contents& held, scc_ss_cpp_operation& operation) {
    held.nac.set_cpu_protection(operation.type, operation.set != 0);
    return 0;
}

u32 perform_acl_counter(forwarding_table::contents& held, scc_ss_counter_operation& operation) {
    return operation.sync != 0 ? held.acls.read_counter(operation.key, operation.counter)
                               : held.acls.reset_counter(operation.key);
}

u32 perform_ace_counter(forwarding_table::contents& held, scc_ss_counter_operation& operation) {
    return operation.sync != 0 ? held.acls.read_ace_counter(operation.key, operation.ace, operation.counter)
                               : held.acls.reset_ace_counter(operation.key, operation.ace);
}

std::string describe(const scc_ss_acl_operation& operation) {
    return fmt::format("{} {}", operation.op == SCC_SS_OP_CREATE ? "create" : "delete",
                       describe(operation.key));
}

std::string describe(const scc_ss_ace_operation& operation) {
    return fmt::format("{} ace sn {} id {} of {}", operation.op == SCC_SS_OP_ADD_ACE ? "add" : "delete",
                       operation.ace.sn, operation.ace.ace_id, describe(operation.key));
}

std::string describe(const scc_ss_apply_operation& operation) {
    scc_records_application where{};
    (void)scc_records_decode_application(&operation.apply, &where);
    return fmt::format("{} {} type {} ifx {} {}{}", operation.op == SCC_SS_OP_APPLY ? "apply" : "unapply",
                       describe(where.key), where.apply_type, where.ifx, describe_direction(where.direction),
                       user_text_of(operation.apply));
}

std::string describe(const scc_ss_resequence_operation& operation) {
    return fmt::format("resequence {} from {} by {}", describe(operation.key), operation.sn_start,
                       operation.sn_inc);
}

std::string describe(const scc_ss_svi_operation& operation) {
    return fmt::format("router acl {}", operation.open != 0 ? "open" : "close");
}

std::string describe(const scc_ss_eport_operation& operation) {
    return fmt::format("{} egress port {}", operation.set != 0 ? "set" : "unset", operation.ifx);
}

std::string describe(const scc_ss_cpp_operation& operation) {
    return fmt::format("{} cpu protection {}", operation.set != 0 ? "set" : "unset", operation.type);
}

std::string describe(const scc_ss_counter_operation& operation) {
    return fmt::format("{} counter of {} ace {}", operation.sync != 0 ? "read" : "reset",
                       describe(operation.key), operation.ace);
}

std::string describe(const scc_ss_user& user) {
    return text_of(read_user_entry(user));
}

}  // namespace scc::service
