// What the tables mean in chains and rules of the kernel, and what the kernel cannot do. Pure; guarded by the
// caller.
//
//   netdev  acl-V-T-A.N      the ACEs of ACL V/T/A, in order; N is its counter's number
//           acl-V-T-A.N/02   continues a long one, and so on
//           in-IFX-NAME      what interface IFX receives: access control, then the ACLs applied there
//           out-IFX-NAME     what it sends
//           nac-IFX-VLAN     counts the users of the interface; where a NAC application closes it, the
//                            last rule drops everybody else, and where it is port security, the one
//                            before tells the kernel's packet log of them
//   inet    cpu-limits       what the machine itself receives, for CPU protection
//
// The counter of an ACL is named V-T-A.N, that of an ACE V-T-A.N-ID.M, that of a user user-IFX-MAC, and that
// of what access control dropped on an interface nac-IFX.
#pragma once

#include <string>

#include "linux/interface_map.h"
#include "linux/ruleset.h"
#include "service/forwarding_table.h"

namespace scc::kernel {

using contents = service::forwarding_table::contents;

[[nodiscard]] std::string counter_text(const service::counter_name& name);
[[nodiscard]] std::string access_counter(u32 ifx);
[[nodiscard]] std::string user_counter(const service::nac_user& user);

class enforcement {
  public:
    // `tells` whether the kernel's packet log can tell of frames that are dropped.
    enforcement(interface_map map, bool tells) : map_(std::move(map)), tells_(tells) {}
    [[nodiscard]] const interface_map& map() const { return map_; }

    // Why the kernel cannot enforce it; empty if it can.
    [[nodiscard]] static std::string problem_of(const service::acl_table::ace_entry& ace);
    [[nodiscard]] std::string problem_of(const scc_acl_apply_record& application) const;
    [[nodiscard]] std::string problem_of(const service::nac_table& nac) const;

    // The touched ACEs and the counters of one ACL, and the end of the chains that the kernel holds for it
    // but should not.
    static void add_acl(const contents& held, const service::acl_name& name,
                        const service::touched_aces& touched, const held_tables& kernel,
                        change_request& request);
    // Everything that depends on where ACLs are applied and on access control.
    void add_interfaces(const contents& held, const held_tables& kernel, change_request& request) const;
    // All of it: whatever else the kernel's tables hold shall go.
    void add_everything(const contents& held, const held_tables& kernel, change_request& request) const;

    // Enters the kernel's ACLs and ACEs as ones that a recovery has to confirm.
    static void adopt(const held_tables& kernel, contents& held);

  private:
    [[nodiscard]] wanted_chain entry_chain(const contents& held, u32 ifx, const mapped_interface& interface,
                                           bool entering) const;
    // Of the frames that pass a chain of access control.
    struct access {
        bool is_closed = false;   // to everybody but users
        bool is_secured = false;  // by port security, so that strangers are told of
    };
    [[nodiscard]] wanted_chain access_chain(const contents& held, u32 ifx, u32 vlan, access how) const;
    // The chains of access control that interface ifx needs, by VLAN (0: all frames).
    [[nodiscard]] static std::map<u32, access> access_of(const contents& held, u32 ifx);
    [[nodiscard]] wanted_chain cpu_chain(const contents& held) const;

    const interface_map map_;
    const bool tells_;
};

}  // namespace scc::kernel
