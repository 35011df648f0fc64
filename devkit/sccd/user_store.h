// The NAC users and ARP entries of the applications, by MAC address, and what is derived from them: the
// users of the ARP check, the IP address of a MAC address, the users of a port.
#pragma once

#include <map>
#include <vector>

#include "common/bytes.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {

using config_records = std::map<devkit::mac_address, devkit::byte_buffer>;

class user_store {
  public:
    // Adding a known MAC address replaces its record; removing an unknown one fails with ENOENT.
    state_change set_user(devkit::byte_view record) { return set(users_, record); }
    state_change set_arp_entry(devkit::byte_view record) { return set(arp_entries_, record); }

    [[nodiscard]] const devkit::byte_buffer* find_user(const devkit::mac_address& mac) const;
    // 0 if no IPv4 address is known for this MAC address.
    [[nodiscard]] u32 ipv4_of(const devkit::mac_address& mac) const;
    [[nodiscard]] u32 users_on(u32 ifx) const;
    // The records of users and ARP entries with an IPv4 address, on one interface, or on all if ifx is 0.
    [[nodiscard]] std::vector<devkit::byte_view> arp_check_users(u32 ifx) const;
    [[nodiscard]] const config_records& users() const { return users_; }
    [[nodiscard]] const config_records& arp_entries() const { return arp_entries_; }

  private:
    static state_change set(config_records& records, devkit::byte_view record);

    config_records users_;
    config_records arp_entries_;
};

// The service's 88-byte user entry for a configuration record.
[[nodiscard]] devkit::byte_buffer service_user_entry(devkit::byte_view config_record);
// The 48-byte entry of an ARP-check user.
[[nodiscard]] devkit::byte_buffer arp_check_entry(devkit::byte_view config_record);
// The 56-byte user record of notifications.
[[nodiscard]] devkit::byte_buffer flow_user_record(devkit::byte_view config_record);

}  // namespace scc::sccd
