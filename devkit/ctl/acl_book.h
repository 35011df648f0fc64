// The ACL changes that the daemon has confirmed to this process.
//
// The library's cache knows what an ACL holds, but neither which ACLs exist nor where they are applied,
// and it is updated only after the result's handler has returned. The book lists the ACLs, and knows what
// the cache must contain before it is read. Main thread only.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "arguments.h"
#include "scclib.h"

namespace scc::ctl {

// Identifies an ACL as the library does, without the class.
struct acl_name {
    std::uint32_t vdev_id = 0;
    std::uint32_t app_type = 0;
    std::uint32_t acl_id = 0;
    auto operator<=>(const acl_name&) const = default;
};

[[nodiscard]] acl_name name_of(const scc_acl_key& key);

class acl_book {
  public:
    void created(const scc_acl_key& key);
    void deleted(const scc_acl_key& key);
    void ace_added(const scc_acl_key& key, const scc_ace_record& ace);
    void ace_deleted(const scc_acl_key& key, const scc_ace_record& ace);
    void resequenced(const scc_acl_key& key, std::uint32_t sn_start, std::uint32_t sn_inc);
    void applied(const scc_acl_apply_record& record);
    void unapplied(const scc_acl_apply_record& record);
    void clear();

    // Waits until the library's cache holds every confirmed change. Returns false on a time-out.
    [[nodiscard]] bool settle();

    [[nodiscard]] std::vector<scc_acl_key> keys() const;
    [[nodiscard]] const std::vector<scc_acl_apply_record>& applications() const { return applications_; }

  private:
    using ace_names = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // sequence number, ACE id
    struct acl {
        scc_acl_key key;
        ace_names aces;  // by sequence number
    };
    [[nodiscard]] bool cache_agrees(const scc_acl_key& key) const;

    std::map<acl_name, acl> acls_;
    std::map<acl_name, scc_acl_key> changed_;  // since the last settle()
    std::vector<scc_acl_apply_record> applications_;
};

// The ACEs of an ACL from the library's cache, in sequence order.
[[nodiscard]] std::uint32_t read_cached_aces(const scc_acl_key& key, std::vector<scc_ace_record>& into);

}  // namespace scc::ctl
