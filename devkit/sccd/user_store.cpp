#include "sccd/user_store.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using devkit::mac_address;
namespace config = devkit::config_record;

u32 ipv4_in(const config_records& records, const mac_address& mac) {
    const auto entry = records.find(mac);
    return entry == records.end() ? 0 : devkit::u32_at(entry->second, config::ipv4);
}

bool on_interface(byte_view record, u32 ifx) {
    return ifx == 0 || devkit::u32_at(record, config::ifx) == ifx;
}

}  // namespace

state_change user_store::set(config_records& records, byte_view record) {
    const mac_address mac = devkit::mac_at(record, config::mac);
    const u32 operation = devkit::u32_at(record, config::operation);
    std::optional<byte_buffer> before;
    if (const auto known = records.find(mac); known != records.end()) {
        before = known->second;
    }

    if (operation == devkit::user_operation::add) {
        records[mac] = devkit::to_bytes(record);
    } else if (operation == devkit::user_operation::remove) {
        if (!before) {
            return state_change::refused(result::not_found);
        }
        records.erase(mac);
    } else {
        return state_change::refused(result::invalid_argument);
    }
    return state_change::made([&records, mac, before = std::move(before)] {
        if (before) {
            records[mac] = *before;
        } else {
            records.erase(mac);
        }
    });
}

const byte_buffer* user_store::find_user(const mac_address& mac) const {
    const auto user = users_.find(mac);
    return user == users_.end() ? nullptr : &user->second;
}

u32 user_store::ipv4_of(const mac_address& mac) const {
    const u32 user = ipv4_in(users_, mac);
    return user != 0 ? user : ipv4_in(arp_entries_, mac);
}

u32 user_store::users_on(u32 ifx) const {
    return static_cast<u32>(std::count_if(
        users_.begin(), users_.end(), [ifx](const auto& user) { return on_interface(user.second, ifx); }));
}

std::vector<byte_view> user_store::arp_check_users(u32 ifx) const {
    std::vector<byte_view> found;
    const auto collect = [&](const byte_buffer& record) {
        const bool counts = devkit::u32_at(record, config::ipv4) != 0 && on_interface(record, ifx);
        if (counts) {
            found.emplace_back(record);
        }
    };
    for (const auto& [mac, record] : users_) {
        collect(record);
    }
    for (const auto& [mac, record] : arp_entries_) {
        if (ipv4_in(users_, mac) == 0) {
            collect(record);
        }
    }
    return found;
}

byte_buffer service_user_entry(byte_view record) {
    namespace entry = devkit::service_user;
    byte_buffer user(record::service_user, 0);
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

byte_buffer arp_check_entry(byte_view record) {
    namespace entry = devkit::arp_check_user;
    byte_buffer user(record::arp_check_entry, 0);
    devkit::write_at(user, entry::ifx, devkit::u32_at(record, config::ifx));
    devkit::write_at(user, entry::vid, static_cast<u16>(devkit::u32_at(record, config::vid)));
    devkit::copy_at(user, entry::mac, devkit::slice(record, config::mac, 6));
    devkit::write_at(user, entry::ipv4, devkit::u32_at(record, config::ipv4));
    return user;
}

byte_buffer flow_user_record(byte_view record) {
    namespace entry = devkit::flow_user;
    byte_buffer user(record::flow_user, 0);
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
