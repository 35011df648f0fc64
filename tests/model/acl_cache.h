// The model of the cache of confirmed ACLs: a list of ACLs in the order in which they came, each with its
// ACEs in order. Everything is searched from the beginning.
#pragma once

#include <algorithm>
#include <vector>

#include "model/arguments.h"

namespace model {

struct cached_ace {
    u32 sn;
    u32 ace_id;
    bytes record;
};

struct cached_acl {
    acl_key key;
    std::vector<cached_ace> aces;
};

class acl_cache {
  public:
    [[nodiscard]] cached_acl* find(const acl_key& key);
    [[nodiscard]] const std::vector<cached_acl>& all() const { return acls_; }
    void clear() { acls_.clear(); }

    // Applies a success result of this kind, with the data that its request saved.
    void confirm(u32 kind, const bytes& saved);
    // The lines of the display of all ACLs.
    [[nodiscard]] std::vector<std::string> display() const;

  private:
    void add_ace(const acl_key& key, const bytes& record);
    void delete_ace(const acl_key& key, const bytes& record);
    void resequence(const acl_key& key, u32 start, u32 step);

    std::vector<cached_acl> acls_;
};

}  // namespace model
