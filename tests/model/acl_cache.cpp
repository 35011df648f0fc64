#include "model/acl_cache.h"

#include <cstdio>

namespace model {
namespace {

constexpr u32 never_renumbered = 0x7FFFFFFF;

bool is_same_acl(const acl_key& one, const acl_key& other) {
    return one.vdev_id == other.vdev_id && one.app_type == other.app_type && one.acl_id == other.acl_id;
}

acl_key key_in(const bytes& saved) {
    return {test::u32_at(saved, 0), test::u32_at(saved, 4), test::u32_at(saved, 8), test::u32_at(saved, 12)};
}

u32 bucket_of(const acl_key& key) {
    const bytes identity = as_bytes(key);
    u32 sum = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        sum += identity[i];
    }
    return (sum ^ sum >> 9 ^ sum >> 18 ^ sum >> 27) & 0x1FF;
}

}  // namespace

cached_acl* acl_cache::find(const acl_key& key) {
    const auto found = std::find_if(acls_.begin(), acls_.end(),
                                    [&](const cached_acl& acl) { return is_same_acl(acl.key, key); });
    return found == acls_.end() ? nullptr : &*found;
}

void acl_cache::add_ace(const acl_key& key, const bytes& record) {
    cached_acl* acl = find(key);
    if (acl == nullptr) {
        return;
    }
    const cached_ace ace{test::u32_at(record, 220), test::u32_at(record, 224), record};
    const auto before = std::find_if(acl->aces.begin(), acl->aces.end(),
                                     [&](const cached_ace& other) { return other.sn > ace.sn; });
    acl->aces.insert(before, ace);
}

void acl_cache::delete_ace(const acl_key& key, const bytes& record) {
    cached_acl* acl = find(key);
    if (acl == nullptr) {
        return;
    }
    const auto found = std::find_if(acl->aces.begin(), acl->aces.end(), [&](const cached_ace& ace) {
        return ace.sn == test::u32_at(record, 220) && ace.ace_id == test::u32_at(record, 224);
    });
    if (found != acl->aces.end()) {
        acl->aces.erase(found);
    }
}

void acl_cache::resequence(const acl_key& key, u32 start, u32 step) {
    cached_acl* acl = find(key);
    if (acl == nullptr) {
        return;
    }
    u32 next = start;
    u32 old_before = 0;
    u32 new_before = 0;
    for (cached_ace& ace : acl->aces) {
        if (ace.sn >= never_renumbered) {
            continue;
        }
        if (ace.sn != old_before) {
            old_before = ace.sn;
            new_before = next;
            next += step;
        }
        ace.sn = new_before;
        std::memcpy(ace.record.data() + 220, &ace.sn, sizeof ace.sn);
    }
}

void acl_cache::confirm(u32 kind, const bytes& saved) {
    const acl_key key = key_in(saved);
    switch (kind) {
        case 31:
            if (find(key) == nullptr) {
                acls_.push_back({key, {}});
            }
            break;
        case 32:
            std::erase_if(acls_, [&](const cached_acl& acl) { return is_same_acl(acl.key, key); });
            break;
        case 33:
            add_ace(key, test::slice(saved, 16, 912));
            break;
        case 34:
            delete_ace(key, test::slice(saved, 16, 912));
            break;
        case 40:
            resequence(key, test::u32_at(saved, 16), test::u32_at(saved, 20));
            break;
        default:
            break;
    }
}

std::vector<std::string> acl_cache::display() const {
    std::vector<const cached_acl*> ordered;
    std::size_t aces = 0;
    for (const cached_acl& acl : acls_) {
        ordered.push_back(&acl);
        aces += acl.aces.size();
    }
    std::stable_sort(ordered.begin(), ordered.end(), [](const cached_acl* one, const cached_acl* other) {
        return bucket_of(one->key) < bucket_of(other->key);
    });
    const std::string line_of_dashes(58, '-');
    std::vector<std::string> lines{"================== scclib all acl info ===================",
                                   "Total acl num:" + std::to_string(acls_.size()) + "\n",
                                   "no      hash-id vdev-id app-type acl-id acl-cls ace-num   ",
                                   line_of_dashes};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        const acl_key& key = ordered[i]->key;
        char line[128];
        std::snprintf(line, sizeof line, "%-7zu %-7u %-7u %-8u %-7u %-7u %-9zu", i + 1, bucket_of(key),
                      key.vdev_id, key.app_type, key.acl_id, key.acl_class, ordered[i]->aces.size());
        lines.emplace_back(line);
    }
    lines.push_back(line_of_dashes);
    lines.push_back("Total ace num:" + std::to_string(aces) + "\n");
    lines.emplace_back("=========================end=============================");
    return lines;
}

}  // namespace model
