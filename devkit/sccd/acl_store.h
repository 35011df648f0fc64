// The ACLs that applications have created: their ACEs in order of sequence number, where they are
// applied, to which users they are bound, and the daemon's own counters.
#pragma once

#include <map>
#include <string>

#include "common/bytes.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {

// Opaque bytes that name something: the entity an ACL is applied on, a user and its ACL.
using Identity = std::string;

struct Ace {
    u64 serial = 0;  // tells ACEs apart whatever their numbers become
    u32 id = 0;
    u64 counter = 0;
    devkit::Bytes record;  // 912 bytes; its sequence number follows every resequencing
};

struct Acl {
    u64 serial = 0;  // tells an ACL from one created later under the same key
    devkit::AclKey key;
    devkit::Bytes creation;        // the request that created it, with the creator's pid and name
    std::multimap<u32, Ace> aces;  // by sequence number; equal numbers in order of arrival
    std::map<Identity, devkit::Bytes> applies;  // apply record by its entity
    u32 sn_start = 0;
    u32 sn_increment = 0;
    u64 counter = 0;
    u64 filter_counter = 0;
};

class AclStore {
  public:
    using Acls = std::map<devkit::AclKey, Acl>;

    // `creation` is the whole value of the request.
    Change create(const devkit::AclKey& key, devkit::View creation);
    // The bindings of users to it go with it.
    Change remove(const devkit::AclKey& key);
    Change add_ace(const devkit::AclKey& key, devkit::View record);
    Change remove_ace(const devkit::AclKey& key, devkit::View record);
    Change apply(devkit::View record);
    Change unapply(devkit::View record);
    // Both numbers must be positive as signed numbers.
    Change resequence(const devkit::AclKey& key, u32 start, u32 increment);

    Change bind_user(devkit::View record);
    Change unbind_user(devkit::View record);
    void unbind_all_users(const devkit::AclKey& key);

    [[nodiscard]] const Acl* find(const devkit::AclKey& key) const;
    [[nodiscard]] Acl* find(const devkit::AclKey& key);
    // The first ACE whose sequence number or id is `number`; null if there is none.
    [[nodiscard]] static Ace* find_ace(Acl& acl, u64 number);
    [[nodiscard]] const Acls& acls() const { return acls_; }
    [[nodiscard]] std::size_t bound_users() const { return user_acls_.size(); }

  private:
    using UserAcls = std::map<Identity, devkit::Bytes>;  // user ACL record by user and key

    [[nodiscard]] UserAcls bindings_of(const devkit::AclKey& key) const;

    Acls acls_;
    UserAcls user_acls_;
    u64 last_serial_ = 0;
};

}  // namespace scc::sccd
