#include "sccd/acl_store.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace scc::sccd {
namespace {

using devkit::acl_identity;
using devkit::byte_view;

constexpr u32 sn_beyond_resequencing = 0x7fffffff;

// The first ACE with this sequence number and id.
std::multimap<u32, ace_entry>::iterator find_exact(acl_entry& acl, u32 sn, u32 id) {
    const auto [first, last] = acl.aces.equal_range(sn);
    const auto ace = std::find_if(first, last, [id](const auto& entry) { return entry.second.id == id; });
    return ace == last ? acl.aces.end() : ace;
}

void erase_serial(acl_entry& acl, u64 serial) {
    std::erase_if(acl.aces, [serial](const auto& entry) { return entry.second.serial == serial; });
}

entity_key identity(byte_view bytes) {
    return {bytes.begin(), bytes.end()};
}

entity_key entity_of(byte_view record) {
    return identity(devkit::slice(record, devkit::apply_record::entity, record.size()));
}

// Everything before the key and the IP addresses identify the user. The key's class is left out, as
// everywhere.
entity_key user_binding(byte_view record) {
    namespace user = devkit::user_acl_record;
    return identity(devkit::slice(record, 0, user::key + 12)) +
           identity(devkit::slice(record, user::ipv4, user::ipv6 + 16 - user::ipv4));
}

bool binds(byte_view record, const acl_identity& key) {
    return devkit::key_at(record, devkit::user_acl_record::key) == key;
}

struct old_numbers {
    u32 start = 0;
    u32 increment = 0;
    std::map<u64, u32> sn_by_serial;
};

old_numbers numbers_of(const acl_entry& acl) {
    old_numbers old{acl.sn_start, acl.sn_increment, {}};
    for (const auto& [sn, ace] : acl.aces) {
        old.sn_by_serial.emplace(ace.serial, sn);
    }
    return old;
}

void put_numbers_back(acl_entry& acl, const old_numbers& old) {
    std::multimap<u32, ace_entry> aces;
    for (auto& [sn, ace] : acl.aces) {
        const auto number = old.sn_by_serial.find(ace.serial);
        const u32 back = number == old.sn_by_serial.end() ? sn : number->second;
        devkit::write_at(ace.record, devkit::ace_record::sn, back);
        aces.emplace(back, std::move(ace));
    }
    acl.aces = std::move(aces);
    acl.sn_start = old.start;
    acl.sn_increment = old.increment;
}

// Equal numbers stay equal; a leading 0 stays 0; numbers from 0x7FFFFFFF on stay and do not advance.
std::multimap<u32, ace_entry> renumbered(std::multimap<u32, ace_entry> old, u32 start, u32 increment) {
    std::multimap<u32, ace_entry> aces;
    u32 next = start;
    u32 previous_old = 0;
    u32 previous_new = 0;
    for (auto& [sn, ace] : old) {
        u32 number = sn;
        if (sn < sn_beyond_resequencing) {
            if (sn != previous_old) {
                previous_old = sn;
                previous_new = next;
                next += increment;
            }
            number = previous_new;
        }
        devkit::write_at(ace.record, devkit::ace_record::sn, number);
        aces.emplace(number, std::move(ace));
    }
    return aces;
}

}  // namespace

const acl_entry* acl_store::find(const acl_identity& key) const {
    const auto acl = acls_.find(key);
    return acl == acls_.end() ? nullptr : &acl->second;
}

acl_entry* acl_store::find(const acl_identity& key) {
    return const_cast<acl_entry*>(std::as_const(*this).find(key));
}

ace_entry* acl_store::find_ace(acl_entry& acl, u64 number) {
    for (auto& [sn, ace] : acl.aces) {
        if (sn == number || ace.id == number) {
            return &ace;
        }
    }
    return nullptr;
}

state_change acl_store::undone_in(const acl_identity& key, std::function<void(acl_entry&)> undo) {
    return state_change::made([this, key, undo = std::move(undo)] {
        if (acl_entry* changed = find(key)) {
            undo(*changed);
        }
    });
}

state_change acl_store::create(const acl_identity& key, byte_view creation) {
    if (find(key) != nullptr) {
        return state_change::refused(result::acl_exists);
    }
    acl_entry& acl = acls_[key];
    const u64 serial = ++last_serial_;
    acl.serial = serial;
    acl.key = key;
    acl.creation = devkit::to_bytes(creation);
    return state_change::made([this, key, serial] {
        const acl_entry* const created = find(key);
        if (created != nullptr && created->serial == serial) {
            acls_.erase(key);
        }
    });
}

state_change acl_store::remove(const acl_identity& key) {
    const auto acl = acls_.find(key);
    if (acl == acls_.end()) {
        return state_change::refused(result::no_such_acl);
    }
    acl_entry removed = std::move(acl->second);
    acls_.erase(acl);
    user_acl_map unbound = bindings_of(key);
    std::erase_if(user_acls_, [&key](const auto& entry) { return binds(entry.second, key); });
    // An ACL created under this key meanwhile is not in the hardware; this one still is.
    return state_change::made([this, removed = std::move(removed), unbound = std::move(unbound)] {
        acls_.insert_or_assign(removed.key, removed);
        user_acls_.insert(unbound.begin(), unbound.end());
    });
}

state_change acl_store::add_ace(const acl_identity& key, byte_view record) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    const u32 sn = devkit::u32_at(record, devkit::ace_record::sn);
    const u32 id = devkit::u32_at(record, devkit::ace_record::id);
    if (find_exact(*acl, sn, id) != acl->aces.end()) {
        return state_change::refused(result::ace_exists);
    }
    const u64 serial = ++last_serial_;
    acl->aces.emplace(sn, ace_entry{serial, id, 0, devkit::to_bytes(record)});
    return undone_in(key, [serial](acl_entry& changed) { erase_serial(changed, serial); });
}

state_change acl_store::remove_ace(const acl_identity& key, byte_view record) {
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    const u32 sn = devkit::u32_at(record, devkit::ace_record::sn);
    const auto ace = find_exact(*acl, sn, devkit::u32_at(record, devkit::ace_record::id));
    if (ace == acl->aces.end()) {
        return state_change::refused(result::no_such_ace);
    }
    ace_entry removed = std::move(ace->second);
    acl->aces.erase(ace);
    return undone_in(
        key, [sn, removed = std::move(removed)](acl_entry& changed) { changed.aces.emplace(sn, removed); });
}

state_change acl_store::apply(byte_view record) {
    const acl_identity key = devkit::key_at(record, 0);
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    const entity_key entity = entity_of(record);
    if (!acl->applies.emplace(entity, devkit::to_bytes(record)).second) {
        return state_change::refused(result::already_applied);
    }
    return undone_in(key, [entity](acl_entry& changed) { changed.applies.erase(entity); });
}

state_change acl_store::unapply(byte_view record) {
    const acl_identity key = devkit::key_at(record, 0);
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    const entity_key entity = entity_of(record);
    if (acl->applies.erase(entity) == 0) {
        return state_change::refused(result::not_applied);
    }
    return undone_in(key, [entity, removed = devkit::to_bytes(record)](acl_entry& changed) {
        changed.applies.emplace(entity, removed);
    });
}

state_change acl_store::resequence(const acl_identity& key, u32 start, u32 increment) {
    if (static_cast<i32>(start) < 1 || static_cast<i32>(increment) < 1) {
        return state_change::refused(result::invalid_argument);
    }
    acl_entry* acl = find(key);
    if (acl == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    old_numbers old = numbers_of(*acl);
    acl->aces = renumbered(std::move(acl->aces), start, increment);
    acl->sn_start = start;
    acl->sn_increment = increment;
    return undone_in(key, [old = std::move(old)](acl_entry& changed) { put_numbers_back(changed, old); });
}

state_change acl_store::bind_user(byte_view record) {
    if (find(devkit::key_at(record, devkit::user_acl_record::key)) == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    const entity_key binding = user_binding(record);
    if (!user_acls_.emplace(binding, devkit::to_bytes(record)).second) {
        return state_change::refused(result::already_applied);
    }
    return state_change::made([this, binding] { user_acls_.erase(binding); });
}

state_change acl_store::unbind_user(byte_view record) {
    if (find(devkit::key_at(record, devkit::user_acl_record::key)) == nullptr) {
        return state_change::refused(result::no_such_acl);
    }
    auto removed = user_acls_.extract(user_binding(record));
    if (removed.empty()) {
        return state_change::refused(result::not_applied);
    }
    return restored(std::move(removed.mapped()));
}

state_change acl_store::move_user(byte_view before, byte_view after) {
    user_acls_.erase(user_binding(before));
    const entity_key moved = user_binding(after);
    user_acls_.insert_or_assign(moved, devkit::to_bytes(after));
    return state_change::made([this, moved, back = restored(devkit::to_bytes(before))] {
        if (user_acls_.erase(moved) != 0) {
            back.undo();
        }
    });
}

// A binding ends with its ACL.
state_change acl_store::restored(devkit::byte_buffer record) {
    return state_change::made([this, record = std::move(record)] {
        if (find(devkit::key_at(record, devkit::user_acl_record::key)) != nullptr) {
            user_acls_.emplace(user_binding(record), record);
        }
    });
}

const devkit::byte_buffer* acl_store::find_user_acl(byte_view record) const {
    namespace user = devkit::user_acl_record;
    const acl_identity asked = devkit::key_at(record, user::key);
    const auto found = std::find_if(user_acls_.begin(), user_acls_.end(), [&](const auto& entry) {
        const byte_view bound(entry.second);
        return devkit::u32_at(bound, user::ifx) == devkit::u32_at(record, user::ifx) &&
               devkit::mac_at(bound, user::mac) == devkit::mac_at(record, user::mac) &&
               (asked == acl_identity{} || binds(bound, asked));
    });
    return found == user_acls_.end() ? nullptr : &found->second;
}

bool acl_store::has_user_acl(byte_view record) const {
    return user_acls_.contains(user_binding(record));
}

acl_store::user_acl_map acl_store::bindings_of(const acl_identity& key) const {
    user_acl_map bindings;
    for (const auto& entry : user_acls_) {
        if (binds(entry.second, key)) {
            bindings.insert(entry);
        }
    }
    return bindings;
}

}  // namespace scc::sccd
