#include "sccd/acl_store.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace scc::sccd {
namespace {

using devkit::AclKey;
using devkit::View;

constexpr u32 sn_beyond_resequencing = 0x7fffffff;

// The ACE with this sequence number and id; the first one, in the order of the list.
std::multimap<u32, Ace>::iterator find_exact(Acl& acl, u32 sn, u32 id) {
    const auto [first, last] = acl.aces.equal_range(sn);
    const auto ace = std::find_if(first, last, [id](const auto& entry) { return entry.second.id == id; });
    return ace == last ? acl.aces.end() : ace;
}

void erase_serial(Acl& acl, u64 serial) {
    std::erase_if(acl.aces, [serial](const auto& entry) { return entry.second.serial == serial; });
}

Identity identity(View bytes) {
    return {bytes.begin(), bytes.end()};
}

Identity entity_of(View record) {
    return identity(devkit::slice(record, devkit::apply_record::entity, record.size()));
}

// Everything before the key names the user; the class is left out of the key as everywhere.
Identity user_binding(View record) {
    return identity(devkit::slice(record, 0, devkit::user_acl_record::key + 12));
}

bool binds(View record, const AclKey& key) {
    return devkit::key_at(record, devkit::user_acl_record::key) == key;
}

struct OldNumbers {
    u32 start = 0;
    u32 increment = 0;
    std::map<u64, u32> sn_by_serial;
};

OldNumbers numbers_of(const Acl& acl) {
    OldNumbers old{acl.sn_start, acl.sn_increment, {}};
    for (const auto& [sn, ace] : acl.aces) old.sn_by_serial.emplace(ace.serial, sn);
    return old;
}

void put_numbers_back(Acl& acl, const OldNumbers& old) {
    std::multimap<u32, Ace> aces;
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

// Equal numbers stay equal; a leading 0 stays 0; numbers from 0x7FFFFFFF on stay and do not count.
std::multimap<u32, Ace> renumbered(std::multimap<u32, Ace> old, u32 start, u32 increment) {
    std::multimap<u32, Ace> aces;
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

const Acl* AclStore::find(const AclKey& key) const {
    const auto acl = acls_.find(key);
    return acl == acls_.end() ? nullptr : &acl->second;
}

Acl* AclStore::find(const AclKey& key) {
    return const_cast<Acl*>(std::as_const(*this).find(key));
}

Ace* AclStore::find_ace(Acl& acl, u64 number) {
    for (auto& [sn, ace] : acl.aces) {
        if (sn == number || ace.id == number) return &ace;
    }
    return nullptr;
}

Change AclStore::create(const AclKey& key, View creation) {
    if (find(key) != nullptr) return Change::refused(result::acl_exists);
    Acl& acl = acls_[key];
    const u64 serial = ++last_serial_;
    acl.serial = serial;
    acl.key = key;
    acl.creation = devkit::to_bytes(creation);
    return Change::made([this, key, serial] {
        const Acl* const created = find(key);
        if (created != nullptr && created->serial == serial) acls_.erase(key);
    });
}

Change AclStore::remove(const AclKey& key) {
    const auto acl = acls_.find(key);
    if (acl == acls_.end()) return Change::refused(result::no_such_acl);
    Acl removed = std::move(acl->second);
    acls_.erase(acl);
    UserAcls unbound = bindings_of(key);
    unbind_all_users(key);
    // Whatever was created under the key meanwhile is not in the hardware, where this one still is.
    return Change::made([this, removed = std::move(removed), unbound = std::move(unbound)] {
        acls_.insert_or_assign(removed.key, removed);
        user_acls_.insert(unbound.begin(), unbound.end());
    });
}

Change AclStore::add_ace(const AclKey& key, View record) {
    Acl* acl = find(key);
    if (acl == nullptr) return Change::refused(result::no_such_acl);
    const u32 sn = devkit::u32_at(record, devkit::ace_record::sn);
    const u32 id = devkit::u32_at(record, devkit::ace_record::id);
    if (find_exact(*acl, sn, id) != acl->aces.end()) return Change::refused(result::ace_exists);
    const u64 serial = ++last_serial_;
    acl->aces.emplace(sn, Ace{serial, id, 0, devkit::to_bytes(record)});
    return Change::made([this, key, serial] {
        if (Acl* changed = find(key)) erase_serial(*changed, serial);
    });
}

Change AclStore::remove_ace(const AclKey& key, View record) {
    Acl* acl = find(key);
    if (acl == nullptr) return Change::refused(result::no_such_acl);
    const u32 sn = devkit::u32_at(record, devkit::ace_record::sn);
    const auto ace = find_exact(*acl, sn, devkit::u32_at(record, devkit::ace_record::id));
    if (ace == acl->aces.end()) return Change::refused(result::no_such_ace);
    Ace removed = std::move(ace->second);
    acl->aces.erase(ace);
    return Change::made([this, key, sn, removed = std::move(removed)] {
        if (Acl* changed = find(key)) changed->aces.emplace(sn, removed);
    });
}

Change AclStore::apply(View record) {
    const AclKey key = devkit::key_at(record, 0);
    Acl* acl = find(key);
    if (acl == nullptr) return Change::refused(result::no_such_acl);
    const Identity entity = entity_of(record);
    if (!acl->applies.emplace(entity, devkit::to_bytes(record)).second) {
        return Change::refused(result::already_applied);
    }
    return Change::made([this, key, entity] {
        if (Acl* changed = find(key)) changed->applies.erase(entity);
    });
}

Change AclStore::unapply(View record) {
    const AclKey key = devkit::key_at(record, 0);
    Acl* acl = find(key);
    if (acl == nullptr) return Change::refused(result::no_such_acl);
    const Identity entity = entity_of(record);
    if (acl->applies.erase(entity) == 0) return Change::refused(result::not_applied);
    return Change::made([this, key, entity, removed = devkit::to_bytes(record)] {
        if (Acl* changed = find(key)) changed->applies.emplace(entity, removed);
    });
}

Change AclStore::resequence(const AclKey& key, u32 start, u32 increment) {
    if (static_cast<i32>(start) < 1 || static_cast<i32>(increment) < 1) {
        return Change::refused(result::invalid_argument);
    }
    Acl* acl = find(key);
    if (acl == nullptr) return Change::refused(result::no_such_acl);
    OldNumbers old = numbers_of(*acl);
    acl->aces = renumbered(std::move(acl->aces), start, increment);
    acl->sn_start = start;
    acl->sn_increment = increment;
    return Change::made([this, key, old = std::move(old)] {
        if (Acl* changed = find(key)) put_numbers_back(*changed, old);
    });
}

Change AclStore::bind_user(View record) {
    if (find(devkit::key_at(record, devkit::user_acl_record::key)) == nullptr) {
        return Change::refused(result::no_such_acl);
    }
    const bool added = user_acls_.emplace(user_binding(record), devkit::to_bytes(record)).second;
    return added ? Change::made() : Change::refused(result::already_applied);
}

Change AclStore::unbind_user(View record) {
    if (find(devkit::key_at(record, devkit::user_acl_record::key)) == nullptr) {
        return Change::refused(result::no_such_acl);
    }
    return user_acls_.erase(user_binding(record)) != 0 ? Change::made()
                                                       : Change::refused(result::not_applied);
}

void AclStore::unbind_all_users(const AclKey& key) {
    std::erase_if(user_acls_, [&key](const auto& entry) { return binds(entry.second, key); });
}

AclStore::UserAcls AclStore::bindings_of(const AclKey& key) const {
    UserAcls bindings;
    for (const auto& entry : user_acls_) {
        if (binds(entry.second, key)) bindings.insert(entry);
    }
    return bindings;
}

}  // namespace scc::sccd
