#include "sccd/user_store.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace scc::sccd {
namespace {

using devkit::Bytes;
using devkit::MacAddress;
using devkit::View;
namespace config = devkit::config_record;

u32 ipv4_in(const ConfigRecords& records, const MacAddress& mac) {
    const auto entry = records.find(mac);
    return entry == records.end() ? 0 : devkit::u32_at(entry->second, config::ipv4);
}

bool on_interface(View record, u32 ifx) {
    return ifx == 0 || devkit::u32_at(record, config::ifx) == ifx;
}

}  // namespace

Change UserStore::set(ConfigRecords& records, View record) {
    const MacAddress mac = devkit::mac_at(record, config::mac);
    const u32 operation = devkit::u32_at(record, config::operation);
    std::optional<Bytes> before;
    if (const auto known = records.find(mac); known != records.end()) before = known->second;

    if (operation == devkit::user_operation::add) {
        records[mac] = devkit::to_bytes(record);
    } else if (operation == devkit::user_operation::remove) {
        if (!before) return Change::refused(result::not_found);
        records.erase(mac);
    } else {
        return Change::refused(result::invalid_argument);
    }
    return Change::made([&records, mac, before = std::move(before)] {
        if (before) {
            records[mac] = *before;
        } else {
            records.erase(mac);
        }
    });
}

const Bytes* UserStore::find_user(const MacAddress& mac) const {
    const auto user = users_.find(mac);
    return user == users_.end() ? nullptr : &user->second;
}

u32 UserStore::ipv4_of(const MacAddress& mac) const {
    const u32 user = ipv4_in(users_, mac);
    return user != 0 ? user : ipv4_in(arp_entries_, mac);
}

u32 UserStore::users_on(u32 ifx) const {
    return static_cast<u32>(std::count_if(
        users_.begin(), users_.end(), [ifx](const auto& user) { return on_interface(user.second, ifx); }));
}

std::vector<View> UserStore::arp_check_users(u32 ifx) const {
    std::vector<View> found;
    const auto collect = [&](const Bytes& record) {
        const bool counts = devkit::u32_at(record, config::ipv4) != 0 && on_interface(record, ifx);
        if (counts) found.emplace_back(record);
    };
    for (const auto& [mac, record] : users_) collect(record);
    for (const auto& [mac, record] : arp_entries_) {
        if (ipv4_in(users_, mac) == 0) collect(record);
    }
    return found;
}

Bytes service_user_entry(View record) {
    namespace entry = devkit::service_user;
    Bytes user(record::service_user, 0);
    devkit::write_at(user, entry::ifx, devkit::u32_at(record, config::ifx));
    devkit::write_at(user, entry::app_type, devkit::u32_at(record, config::app_type));
    devkit::copy_at(user, entry::mac, devkit::slice(record, config::mac, 6));
    devkit::write_at(user, entry::vid, static_cast<u16>(devkit::u32_at(record, config::vid)));
    devkit::write_at(user, entry::flags, devkit::u32_at(record, config::flags));
    devkit::write_at(user, entry::ipv4, devkit::u32_at(record, config::ipv4));
    devkit::copy_at(user, entry::ipv6, devkit::slice(record, config::ipv6, 16));
    devkit::copy_at(user, entry::mask, devkit::slice(record, config::mask, 16));
    return user;
}

Bytes arp_check_entry(View record) {
    namespace entry = devkit::arp_check_user;
    Bytes user(record::arp_check_entry, 0);
    devkit::write_at(user, entry::ifx, devkit::u32_at(record, config::ifx));
    devkit::write_at(user, entry::vid, static_cast<u16>(devkit::u32_at(record, config::vid)));
    devkit::copy_at(user, entry::mac, devkit::slice(record, config::mac, 6));
    devkit::write_at(user, entry::ipv4, devkit::u32_at(record, config::ipv4));
    return user;
}

Bytes flow_user_record(View record) {
    namespace entry = devkit::flow_user;
    Bytes user(record::flow_user, 0);
    const bool ipv6 = (devkit::u32_at(record, config::flags) & config::flag_ipv6) != 0;
    if (ipv6) {
        devkit::copy_at(user, entry::ipv4, devkit::slice(record, config::ipv6, 16));
        devkit::copy_at(user, entry::mask, devkit::slice(record, config::mask, 16));
    } else {
        devkit::write_at(user, entry::ipv4, devkit::u32_at(record, config::ipv4));
        devkit::write_at(user, entry::mask, devkit::u32_at(record, config::mask));
    }
    devkit::write_at(user, entry::ifx, devkit::u32_at(record, config::ifx));
    devkit::write_at(user, entry::vid, static_cast<u16>(devkit::u32_at(record, config::vid)));
    devkit::copy_at(user, entry::mac, devkit::slice(record, config::mac, 6));
    devkit::write_at(user, entry::family, ipv6 ? entry::family_ipv6 : entry::family_ipv4);
    return user;
}

}  // namespace scc::sccd
