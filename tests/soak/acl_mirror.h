// The expected content of a client's ACL cache, derived from the results delivered so far. Used only on the
// library's thread.
#pragma once

#include <scclib.h>

#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

namespace soak {

enum class comparison { none, same, differs };

class acl_mirror {
  public:
    void use(bool used) { used_ = used; }

    void clear() {
        acls_.clear();
        differed_ = false;
    }
    void create(const scc_acl_key& key, std::uint32_t result) {
        if (result == 0) {
            acls_.try_emplace(key.acl_id);
        }
    }
    void add_ace(const scc_acl_key& key, const scc_ace_record& ace, std::uint32_t result) {
        const auto acl = acls_.find(key.acl_id);
        if (result == 0 && acl != acls_.end()) {
            acl->second.emplace(ace.sn, ace.ace_id);
        }
    }
    // ACEs that share a sequence number also share the new one.
    void resequence(const scc_acl_key& key, std::uint32_t start, std::uint32_t step, std::uint32_t result) {
        const auto acl = acls_.find(key.acl_id);
        if (result != 0 || acl == acls_.end()) {
            return;
        }
        ace_list renumbered;
        std::uint32_t before = 0;
        std::uint32_t number = start - step;
        for (const auto& [sn, id] : acl->second) {
            number += sn == before ? 0 : step;
            before = sn;
            renumbered.emplace(number, id);
        }
        acl->second = renumbered;
    }
    void remove(const scc_acl_key& key, std::uint32_t result) {
        if (result == 0) {
            acls_.erase(key.acl_id);
        }
    }

    // A sender that finds the connection lost empties the cache while an earlier result is still being
    // delivered, so a difference counts only if the connection survives.
    comparison compare(const scc_acl_key& key) {
        if (!used_) {
            return comparison::none;
        }
        scc_list_head list{&list, &list};
        const std::uint32_t result = scc_acl_get_ace(&key, &list);
        if (result == SCC_E_UNAVAILABLE) {
            return comparison::none;
        }
        const ace_row cached = take(list);
        const auto acl = acls_.find(key.acl_id);
        const bool same =
            acl == acls_.end() ? result == SCC_E_NO_ACL : result == 0 && cached == in_order(acl->second);
        if (std::exchange(differed_, !same)) {
            return comparison::differs;
        }
        return same ? comparison::same : comparison::none;
    }

  private:
    using ace_list = std::multimap<std::uint32_t, std::uint32_t>;  // sequence number, id
    using ace_row = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

    static ace_row in_order(const ace_list& aces) { return {aces.begin(), aces.end()}; }

    // Frees the list.
    static ace_row take(scc_list_head& list) {
        ace_row row;
        while (list.next != &list) {
            auto* const ace = reinterpret_cast<scc_ace_record*>(list.next);
            row.emplace_back(ace->sn, ace->ace_id);
            list.next = ace->link.next;
            std::free(ace);
        }
        return row;
    }

    bool used_ = false;
    bool differed_ = false;
    std::map<std::uint32_t, ace_list> acls_;
};

}  // namespace soak
