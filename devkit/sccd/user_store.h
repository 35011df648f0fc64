// The NAC users and ARP entries that applications have given, by MAC address, and what is derived
// from them: the users of the ARP check, the address behind a MAC, the users of a port.
#pragma once

#include <map>
#include <vector>

#include "common/bytes.h"
#include "common/records.h"
#include "sccd/change.h"

namespace scc::sccd {

using ConfigRecords = std::map<devkit::MacAddress, devkit::Bytes>;

class UserStore {
  public:
    // Adding a known MAC replaces its record; removing an unknown one is refused with ENOENT.
    Change set_user(devkit::View record) { return set(users_, record); }
    Change set_arp_entry(devkit::View record) { return set(arp_entries_, record); }

    [[nodiscard]] const devkit::Bytes* find_user(const devkit::MacAddress& mac) const;
    // 0 when nothing with an IPv4 address is known under this MAC.
    [[nodiscard]] u32 ipv4_of(const devkit::MacAddress& mac) const;
    [[nodiscard]] u32 users_on(u32 ifx) const;
    // The records of users and ARP entries with an IPv4 address, on one interface or (0) on all.
    [[nodiscard]] std::vector<devkit::View> arp_check_users(u32 ifx) const;
    [[nodiscard]] const ConfigRecords& users() const { return users_; }
    [[nodiscard]] const ConfigRecords& arp_entries() const { return arp_entries_; }

  private:
    static Change set(ConfigRecords& records, devkit::View record);

    ConfigRecords users_;
    ConfigRecords arp_entries_;
};

// The service's 88-byte user entry made from a configuration record.
[[nodiscard]] devkit::Bytes service_user_entry(devkit::View config_record);
// The 48-byte entry of an ARP-check user.
[[nodiscard]] devkit::Bytes arp_check_entry(devkit::View config_record);
// The 56-byte user record of notifications.
[[nodiscard]] devkit::Bytes flow_user_record(devkit::View config_record);

}  // namespace scc::sccd
