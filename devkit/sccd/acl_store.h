// The ACLs of the applications: their ACEs in sequence order, where they are applied, the users they are
// bound to, and the daemon's counters.
#pragma once

#include <map>
#include <string>

#include "common/bytes.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {

// Opaque bytes that identify the entity an ACL is applied to, or a user and its ACL.
using entity_key = std::string;

struct ace_entry {
    u64 serial = 0;  // identifies the ACE across renumbering
    u32 id = 0;
    u64 counter = 0;
    devkit::byte_buffer record;  // 912 bytes; every resequencing updates its sequence number
};

struct acl_entry {
    u64 serial = 0;  // distinguishes an ACL from a later one with the same key
    devkit::acl_identity key;
    devkit::byte_buffer creation;        // the creating request's value, with the creator's pid and name
    std::multimap<u32, ace_entry> aces;  // by sequence number; equal numbers in order of arrival
    std::map<entity_key, devkit::byte_buffer> applies;  // apply record by its entity
    u32 sn_start = 0;
    u32 sn_increment = 0;
    u64 counter = 0;
    u64 filter_counter = 0;
};

class acl_store {
  public:
    using acl_map = std::map<devkit::acl_identity, acl_entry>;

    // `creation` is the whole value of the request.
    state_change create(const devkit::acl_identity& key, devkit::byte_view creation);
    // Also unbinds the ACL's users.
    state_change remove(const devkit::acl_identity& key);
    state_change add_ace(const devkit::acl_identity& key, devkit::byte_view record);
    state_change remove_ace(const devkit::acl_identity& key, devkit::byte_view record);
    state_change apply(devkit::byte_view record);
    state_change unapply(devkit::byte_view record);
    // Both numbers must be positive as signed integers.
    state_change resequence(const devkit::acl_identity& key, u32 start, u32 increment);

    state_change bind_user(devkit::byte_view record);
    state_change unbind_user(devkit::byte_view record);
    // Replaces the binding `before`, which must exist, by `after`.
    state_change move_user(devkit::byte_view before, devkit::byte_view after);
    // The binding of the user with the interface and the MAC address of `record`, to the ACL that the record
    // names, or to any if it names none. Null if there is none.
    [[nodiscard]] const devkit::byte_buffer* find_user_acl(devkit::byte_view record) const;
    [[nodiscard]] bool has_user_acl(devkit::byte_view record) const;

    [[nodiscard]] const acl_entry* find(const devkit::acl_identity& key) const;
    [[nodiscard]] acl_entry* find(const devkit::acl_identity& key);
    // The first ACE whose sequence number or id is `number`; null if there is none.
    [[nodiscard]] static ace_entry* find_ace(acl_entry& acl, u64 number);
    [[nodiscard]] const acl_map& acls() const { return acls_; }
    using user_acl_map = std::map<entity_key, devkit::byte_buffer>;  // user ACL record by user and key
    [[nodiscard]] const user_acl_map& user_acls() const { return user_acls_; }
    [[nodiscard]] user_acl_map bindings_of(const devkit::acl_identity& key) const;

  private:
    // A change that is undone in the ACL of this key, if it is still there.
    [[nodiscard]] state_change undone_in(const devkit::acl_identity& key,
                                         std::function<void(acl_entry&)> undo);
    // A removal of the binding, which its undo brings back.
    [[nodiscard]] state_change restored(devkit::byte_buffer record);

    acl_map acls_;
    user_acl_map user_acls_;
    u64 last_serial_ = 0;
};

}  // namespace scc::sccd
