// The hardware's state other than ACLs: NAC users and application settings, layer-4 ports, egress ports,
// CPU protection, routed-VLAN ACLs and offline detection.
//
// Between begin_recovery and end_recovery the daemon sends everything again; what it does not send is
// dropped at the end. begin_reinstall and end_reinstall do the same for the users of one interface.
//
// Not thread-safe: forwarding_table guards it.
#pragma once

#include <compare>
#include <string>
#include <vector>

#include "service/held.h"
#include "service/packet.h"

namespace scc::service {

// A user entry, decoded.
struct nac_user {
    u32 ifx = 0;
    u16 vid = 0;
    ace::mac_bytes mac{};
    bool is_ipv6 = false;
    ace::ip_bytes ip{};    // IPv4 in the first 4 bytes
    ace::ip_bytes mask{};  // likewise; all ones if the entry has none
};

[[nodiscard]] nac_user read_user_entry(const scc_ss_user& entry);
// One line of text.
[[nodiscard]] std::string text_of(const nac_user& user);

// A NAC application's setting on an interface; VLAN 0 means a setting without a VLAN.
struct nac_app {
    u32 ifx = 0;
    u32 vid = 0;
    u32 type = 0;
    auto operator<=>(const nac_app&) const = default;
};

struct offline_detection {
    bool open = false;
    u32 interval_seconds = 0;
    u32 threshold = 0;  // of packets; scc-ss-dev only shows it
};

class nac_table {
  public:
    // Operations 0 and 3 remove the setting; any other is stored as its value.
    void set_app(const nac_app& app, u32 operation);
    void read_default(u32 ifx, u32 type) { default_reads_.put({ifx, 0, type}, 0); }
    void set_l4port(u32 port, bool add);

    // Users are identified by their MAC address; adding an existing user replaces its entry.
    void add_user(const scc_ss_user& user);
    [[nodiscard]] u32 delete_user(const scc_ss_user& user);
    // Fills in the entry with this MAC address.
    [[nodiscard]] u32 read_user(scc_ss_user& user) const;
    void begin_reinstall(u32 ifx);
    void end_reinstall(u32 ifx);
    [[nodiscard]] std::vector<nac_user> users() const;
    [[nodiscard]] std::vector<nac_app> apps() const;
    [[nodiscard]] std::vector<u32> l4ports() const { return numbers_of(l4ports_); }
    [[nodiscard]] std::vector<u32> egress_ports() const { return numbers_of(egress_ports_); }
    [[nodiscard]] std::vector<u32> cpu_protection() const { return numbers_of(cpu_protection_); }
    // Differs after every change, so that a back end sees what concerns it.
    [[nodiscard]] u64 version() const { return version_; }

    void set_router_acl(bool open) {
        ++version_;
        router_acl_.put(open);
    }
    [[nodiscard]] bool router_acl() const { return router_acl_.get(); }
    void set_egress_port(u32 ifx, bool set);
    void set_cpu_protection(u32 type, bool set);
    void set_offline_detection(const offline_detection& detection) { offline_detection_.put(detection); }
    [[nodiscard]] const offline_detection& detection() const { return offline_detection_.get(); }
    void set_direct_vlans(const scc_vlan_record& vlans) { direct_vlans_.put(vlans); }
    void set_auth_mode(u32 mode) { auth_mode_ = mode; }

    void begin_recovery();
    void end_recovery();

    [[nodiscard]] std::string text() const;

  private:
    using numbers = held_entries<u32, bool>;

    [[nodiscard]] static std::vector<u32> numbers_of(const numbers& entries);

    held_entries<ace::mac_bytes, scc_ss_user> users_;
    held_entries<nac_app, u32> apps_;
    held_entries<nac_app, u32> default_reads_;
    numbers l4ports_;
    numbers egress_ports_;
    numbers cpu_protection_;
    held_value<bool> router_acl_;
    held_value<offline_detection> offline_detection_;
    held_value<scc_vlan_record> direct_vlans_;
    u64 version_ = 0;
    u32 auth_mode_ = 0;  // set by a notification, which no recovery repeats
};

}  // namespace scc::service
