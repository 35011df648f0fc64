// Field offsets in the wire's records. The library copies most of these records unread. The fields that
// it reads are marked (*); the others are the layout of scc_records.h, or the devkit's convention, shared by
// the daemon, the software service and the command-line tool.
#pragma once

#include <cstddef>
#include <tuple>

#include "common/bytes.h"
#include "scc_records.h"

namespace scc::devkit {

// The 736-byte application configuration record, also the NAC user record and the ARP entry record.
namespace config_record {
inline constexpr std::size_t ifx = offsetof(scc_records_config, ifx);              // u32
inline constexpr std::size_t vid = offsetof(scc_records_config, vid);              // u32; 0 = no VLAN
inline constexpr std::size_t mac = offsetof(scc_records_config, mac);              // 6 bytes
inline constexpr std::size_t app_type = offsetof(scc_records_config, app_type);    // u32 (*)
inline constexpr std::size_t value = offsetof(scc_records_config, value);          // u32: the setting itself
inline constexpr std::size_t operation = offsetof(scc_records_config, operation);  // u32 (*): user_operation
inline constexpr std::size_t flags = offsetof(scc_records_config, flags);          // u32 (*): flag_*
inline constexpr std::size_t ipv4 = offsetof(scc_records_config, ipv4);            // u32, network order
inline constexpr std::size_t ipv6 = offsetof(scc_records_config, ipv6);            // 16 bytes
inline constexpr std::size_t mask = offsetof(scc_records_config, mask);            // 16 bytes (*)
inline constexpr u32 flag_ipv4 = SCC_RECORDS_HAS_IPV4;
inline constexpr u32 flag_ipv6 = SCC_RECORDS_HAS_IPV6;
inline constexpr u32 flag_mask = SCC_RECORDS_HAS_MASK;
}  // namespace config_record

namespace user_operation {
inline constexpr u32 add = SCC_RECORDS_ADD;
inline constexpr u32 get = SCC_RECORDS_GET;
inline constexpr u32 remove = SCC_RECORDS_DELETE;
}  // namespace user_operation

// The 88-byte user entry of the security service.
namespace service_user {
inline constexpr std::size_t ifx = 0;       // u32 (*)
inline constexpr std::size_t app_type = 4;  // u32
inline constexpr std::size_t mac = 8;       // 6 bytes (*)
inline constexpr std::size_t vid = 14;      // u16
inline constexpr std::size_t flags = 16;    // u32, as in the configuration record
inline constexpr std::size_t ipv4 = 24;     // u32 (*)
inline constexpr std::size_t ipv6 = 32;     // 16 bytes
inline constexpr std::size_t mask = 48;     // 16 bytes
}  // namespace service_user

// The 56-byte user record of flow, no-flow and user-change notifications.
namespace flow_user {
inline constexpr std::size_t ipv4 = offsetof(scc_flow_user, address);   // u32, or 16 bytes of IPv6 (*)
inline constexpr std::size_t mask = offsetof(scc_flow_user, mask);      // u32, or 16 bytes (*)
inline constexpr std::size_t ifx = offsetof(scc_flow_user, ifx);        // u32 (*)
inline constexpr std::size_t vid = offsetof(scc_flow_user, vid);        // u16 (*)
inline constexpr std::size_t mac = offsetof(scc_flow_user, mac);        // 6 bytes (*)
inline constexpr std::size_t family = offsetof(scc_flow_user, family);  // u32: 3 or 4 = IPv6 (*)
inline constexpr u32 family_ipv4 = 1;
inline constexpr u32 family_ipv6 = 3;
}  // namespace flow_user

// The 16-byte entry of an address move.
namespace address_move {
inline constexpr std::size_t ifx = 0;         // u32 (*)
inline constexpr std::size_t vid = 4;         // u16 (*)
inline constexpr std::size_t vid_before = 6;  // u16 (*)
inline constexpr std::size_t vid_after = 8;   // u16 (*)
inline constexpr std::size_t mac = 10;        // 6 bytes (*)
}  // namespace address_move

// The 48-byte entry that describes one ARP-check user.
namespace arp_check_user {
inline constexpr std::size_t ifx = offsetof(scc_records_arp_user, ifx);    // u32
inline constexpr std::size_t vid = offsetof(scc_records_arp_user, vid);    // u16
inline constexpr std::size_t mac = offsetof(scc_records_arp_user, mac);    // 6 bytes
inline constexpr std::size_t ipv4 = offsetof(scc_records_arp_user, ipv4);  // u32
}  // namespace arp_check_user

// The 512 bytes of direct VLANs: VLAN v is bit v % 8 (0 is the lowest) of byte v / 8.
inline constexpr u64 vlan_count = record::direct_vlan * 8;

// False if there is no such VLAN. The record starts at `offset` in `bytes`.
[[nodiscard]] inline bool set_vlan(byte_buffer& bytes, std::size_t offset, u64 vlan) {
    if (vlan >= vlan_count || !holds(bytes, offset, record::direct_vlan)) {
        return false;
    }
    bytes[offset + vlan / 8] = static_cast<u8>(bytes[offset + vlan / 8] | 1u << (vlan % 8));
    return true;
}

[[nodiscard]] inline std::vector<u32> vlans_of(byte_view record) {
    std::vector<u32> vlans;
    for (std::size_t vlan = 0; vlan < record.size() * 8; ++vlan) {
        if ((record[vlan / 8] >> (vlan % 8) & 1u) != 0) {
            vlans.push_back(static_cast<u32>(vlan));
        }
    }
    return vlans;
}

// The 912-byte ACE record.
namespace ace_record {
inline constexpr std::size_t sn = offsetof(scc_ace_record, sn);      // u32 (*)
inline constexpr std::size_t id = offsetof(scc_ace_record, ace_id);  // u32 (*)
}  // namespace ace_record

// The 232-byte apply record begins with the ACL's key. The devkit takes everything after the key
// as the entity that the ACL is applied to.
namespace apply_record {
inline constexpr std::size_t entity = record::acl_key;
inline constexpr std::size_t ifx = offsetof(scc_records_application, ifx);              // u32
inline constexpr std::size_t direction = offsetof(scc_records_application, direction);  // u32: 0 in, 1 out
// The user, if the ACL is bound to one; otherwise zeros.
inline constexpr std::size_t mac = offsetof(scc_records_application, mac);                // 6 bytes
inline constexpr std::size_t vid = offsetof(scc_records_application, vid);                // u16
inline constexpr std::size_t ipv4 = offsetof(scc_records_application, ipv4);              // u32
inline constexpr std::size_t ipv6 = offsetof(scc_records_application, ipv6);              // 16 bytes
inline constexpr std::size_t phyid = 56;                                                  // u64
inline constexpr std::size_t apply_type = offsetof(scc_records_application, apply_type);  // u32 (*)
}  // namespace apply_record

// The 208-byte user ACL record.
namespace user_acl_record {
inline constexpr std::size_t ifx = offsetof(scc_records_user_acl, ifx);              // u32 (*)
inline constexpr std::size_t phyid = offsetof(scc_records_user_acl, phyid);          // u64 (*)
inline constexpr std::size_t app_type = offsetof(scc_records_user_acl, apptype);     // u32 (*)
inline constexpr std::size_t direction = offsetof(scc_records_user_acl, direction);  // u32 (*): 0 in, 1 out
inline constexpr std::size_t mac = offsetof(scc_records_user_acl, mac);              // 6 bytes (*)
inline constexpr std::size_t vid = offsetof(scc_records_user_acl, vid);              // u16 (*)
inline constexpr std::size_t key = offsetof(scc_records_user_acl, key);              // ACL key (*)
inline constexpr std::size_t ipv4 = offsetof(scc_records_user_acl, ipv4);            // u32
inline constexpr std::size_t ipv6 = offsetof(scc_records_user_acl, ipv6);            // 16 bytes
}  // namespace user_acl_record

struct acl_identity {
    u32 vdev = 0;
    u32 app_type = 0;
    u32 acl_id = 0;
    u32 acl_class = 0;

    // The class is carried along but is not part of an ACL's identity.
    friend bool operator<(const acl_identity& a, const acl_identity& b) {
        return std::tie(a.vdev, a.app_type, a.acl_id) < std::tie(b.vdev, b.app_type, b.acl_id);
    }
    friend bool operator==(const acl_identity& a, const acl_identity& b) {
        return std::tie(a.vdev, a.app_type, a.acl_id) == std::tie(b.vdev, b.app_type, b.acl_id);
    }
};

[[nodiscard]] inline acl_identity key_at(byte_view bytes, std::size_t offset) {
    return {u32_at(bytes, offset), u32_at(bytes, offset + 4), u32_at(bytes, offset + 8),
            u32_at(bytes, offset + 12)};
}

inline void write_key(byte_buffer& bytes, std::size_t offset, const acl_identity& key) {
    write_at(bytes, offset, key.vdev);
    write_at(bytes, offset + 4, key.app_type);
    write_at(bytes, offset + 8, key.acl_id);
    write_at(bytes, offset + 12, key.acl_class);
}

}  // namespace scc::devkit
