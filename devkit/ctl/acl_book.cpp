// Records confirmed ACL changes and compares the library's cache with them.
#include "acl_book.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace scc::ctl {
namespace {

// The cache is updated right after the handler returns: microseconds, unless the machine is busy.
constexpr std::chrono::seconds settle_limit{2};
constexpr std::chrono::microseconds settle_interval{200};

// Resequencing keeps numbers from here on.
constexpr std::uint32_t fixed_sn = 0x7FFFFFFF;

bool same_application(const scc_acl_apply_record& a, const scc_acl_apply_record& b) {
    return name_of(a.key) == name_of(b.key) && a.apply_type == b.apply_type &&
           std::memcmp(a.target, b.target, sizeof a.target) == 0;
}

}  // namespace

acl_name name_of(const scc_acl_key& key) {
    return {key.vdev_id, key.app_type, key.acl_id};
}

void acl_book::created(const scc_acl_key& key) {
    acls_.try_emplace(name_of(key), acl{key, {}});
    changed_[name_of(key)] = key;
}

void acl_book::deleted(const scc_acl_key& key) {
    acls_.erase(name_of(key));
    changed_[name_of(key)] = key;
}

void acl_book::ace_added(const scc_acl_key& key, const scc_ace_record& ace) {
    const auto found = acls_.find(name_of(key));
    if (found == acls_.end()) {
        return;
    }
    ace_names& aces = found->second.aces;
    const auto later = std::upper_bound(aces.begin(), aces.end(), ace.sn,
                                        [](std::uint32_t sn, const auto& each) { return sn < each.first; });
    aces.insert(later, {ace.sn, ace.ace_id});
    changed_[name_of(key)] = key;
}

void acl_book::ace_deleted(const scc_acl_key& key, const scc_ace_record& ace) {
    const auto found = acls_.find(name_of(key));
    if (found == acls_.end()) {
        return;
    }
    ace_names& aces = found->second.aces;
    const auto first = std::find(aces.begin(), aces.end(), std::pair{ace.sn, ace.ace_id});
    if (first != aces.end()) {
        aces.erase(first);
    }
    changed_[name_of(key)] = key;
}

void acl_book::resequenced(const scc_acl_key& key, std::uint32_t sn_start, std::uint32_t sn_inc) {
    const auto found = acls_.find(name_of(key));
    if (found == acls_.end()) {
        return;
    }
    std::uint32_t next = sn_start;
    std::uint32_t old_before = 0;  // so a leading 0 stays 0
    std::uint32_t new_before = 0;
    for (auto& [sn, id] : found->second.aces) {
        if (sn >= fixed_sn) {
            continue;
        }
        if (sn != old_before) {
            old_before = sn;
            new_before = next;
            next += sn_inc;
        }
        sn = new_before;
    }
    changed_[name_of(key)] = key;
}

void acl_book::applied(const scc_acl_apply_record& record) {
    applications_.push_back(record);
}

void acl_book::unapplied(const scc_acl_apply_record& record) {
    std::erase_if(applications_, [&](const auto& each) { return same_application(each, record); });
}

void acl_book::clear() {
    acls_.clear();
    changed_.clear();
    applications_.clear();
}

bool acl_book::settle() {
    const auto until = std::chrono::steady_clock::now() + settle_limit;
    while (!changed_.empty()) {
        if (cache_agrees(changed_.begin()->second)) {
            changed_.erase(changed_.begin());
        } else if (std::chrono::steady_clock::now() > until) {
            return false;
        } else {
            std::this_thread::sleep_for(settle_interval);
        }
    }
    return true;
}

std::vector<scc_acl_key> acl_book::keys() const {
    std::vector<scc_acl_key> keys;
    for (const auto& [name, each] : acls_) {
        keys.push_back(each.key);
    }
    return keys;
}

bool acl_book::cache_agrees(const scc_acl_key& key) const {
    std::vector<scc_ace_record> cached;
    const std::uint32_t result = read_cached_aces(key, cached);
    const auto expected = acls_.find(name_of(key));
    if (expected == acls_.end()) {
        return result == SCC_E_NO_ACL;
    }
    return result == 0 && std::equal(cached.begin(), cached.end(), expected->second.aces.begin(),
                                     expected->second.aces.end(), [](const auto& ace, const auto& name) {
                                         return ace.sn == name.first && ace.ace_id == name.second;
                                     });
}

std::uint32_t read_cached_aces(const scc_acl_key& key, std::vector<scc_ace_record>& into) {
    scc_list_head aces{};
    const std::uint32_t result = scc_acl_get_ace(&key, &aces);
    if (result != 0) {
        return result;
    }
    for (scc_list_head* next = aces.next; next != &aces;) {
        auto* const ace = reinterpret_cast<scc_ace_record*>(next);  // the link is the record's first member
        next = next->next;
        into.push_back(*ace);
        into.back().link = {};
        std::free(ace);
    }
    return 0;
}

}  // namespace scc::ctl
