#include "service/nac_table.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>

#include "ace/ace_text.h"
#include "common/records.h"

namespace scc::service {
namespace {

byte_view bytes_of(const scc_ss_user& user) {
    return {reinterpret_cast<const u8*>(&user), sizeof user};
}

constexpr u32 operation_none = 0;
constexpr u32 operation_delete = 3;

// The prefix of the array that the address occupies.
ace::ip_bytes address_at(byte_view bytes, std::size_t offset, bool is_ipv6) {
    ace::ip_bytes address{};
    std::ranges::copy(devkit::slice(bytes, offset, is_ipv6 ? address.size() : 4), address.begin());
    return address;
}

ace::ip_bytes whole_mask(bool is_ipv6) {
    ace::ip_bytes mask{};
    std::fill_n(mask.begin(), is_ipv6 ? mask.size() : 4, u8{0xFF});
    return mask;
}

std::string ip_text(const nac_user& user) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(user.is_ipv6 ? AF_INET6 : AF_INET, user.ip.data(), text.data(), text.size());
}

template <class Entries>
void keep_or_drop(Entries& entries, u32 number, bool keep) {
    if (keep) {
        entries.put(number, true);
    } else {
        (void)entries.erase(number);
    }
}

void append_numbers(std::string& out, const char* title, const std::vector<u32>& numbers) {
    if (!numbers.empty()) {
        fmt::format_to(std::back_inserter(out), "{} {}\n", title, fmt::join(numbers, " "));
    }
}

}  // namespace

nac_user read_user_entry(const scc_ss_user& entry) {
    namespace layout = devkit::service_user;
    const byte_view bytes = bytes_of(entry);
    nac_user user;
    user.ifx = entry.ifx;
    user.vid = devkit::read_at<u16>(bytes, layout::vid);
    std::ranges::copy(entry.mac, user.mac.begin());
    user.is_ipv6 = (devkit::u32_at(bytes, layout::flags) & devkit::config_record::flag_ipv6) != 0;
    user.ip = address_at(bytes, user.is_ipv6 ? layout::ipv6 : layout::ipv4, user.is_ipv6);
    user.mask = address_at(bytes, layout::mask, user.is_ipv6);
    if (user.mask == ace::ip_bytes{}) {
        user.mask = whole_mask(user.is_ipv6);
    }
    return user;
}

std::string text_of(const nac_user& user) {
    return fmt::format("user ifx {} vid {} mac {} ip {}", user.ifx, user.vid, ace::print_mac(user.mac),
                       ip_text(user));
}

void nac_table::set_app(const nac_app& app, u32 operation) {
    ++version_;
    if (operation == operation_none || operation == operation_delete) {
        (void)apps_.erase(app);
    } else {
        apps_.put(app, operation);
    }
}

void nac_table::set_l4port(u32 port, bool add) {
    ++version_;
    keep_or_drop(l4ports_, port, add);
}

void nac_table::add_user(const scc_ss_user& user) {
    ++version_;
    users_.put(read_user_entry(user).mac, user);
}

u32 nac_table::delete_user(const scc_ss_user& user) {
    ++version_;
    return users_.erase(read_user_entry(user).mac) ? 0 : ENOENT;
}

u32 nac_table::read_user(scc_ss_user& user) const {
    const scc_ss_user* held = users_.find(read_user_entry(user).mac);
    if (held == nullptr) {
        return ENOENT;
    }
    user = *held;
    return 0;
}

void nac_table::begin_reinstall(u32 ifx) {
    users_.mark_stale_if([ifx](const scc_ss_user& user) { return user.ifx == ifx; });
}

void nac_table::end_reinstall(u32 ifx) {
    ++version_;
    users_.drop_stale_if([ifx](const scc_ss_user& user) { return user.ifx == ifx; });
}

std::vector<nac_user> nac_table::users() const {
    std::vector<nac_user> all;
    users_.for_each(
        [&](const ace::mac_bytes&, const scc_ss_user& user) { all.push_back(read_user_entry(user)); });
    return all;
}

std::vector<nac_app> nac_table::apps() const {
    std::vector<nac_app> all;
    apps_.for_each([&](const nac_app& app, u32) { all.push_back(app); });
    return all;
}

std::vector<u32> nac_table::numbers_of(const numbers& entries) {
    std::vector<u32> all;
    entries.for_each([&](u32 number, bool) { all.push_back(number); });
    return all;
}

void nac_table::set_egress_port(u32 ifx, bool set) {
    ++version_;
    keep_or_drop(egress_ports_, ifx, set);
}

void nac_table::set_cpu_protection(u32 type, bool set) {
    ++version_;
    keep_or_drop(cpu_protection_, type, set);
}

void nac_table::begin_recovery() {
    const auto mark = [](auto&... held) { (held.mark_stale(), ...); };
    mark(users_, apps_, default_reads_, l4ports_, egress_ports_, cpu_protection_, router_acl_,
         offline_detection_, direct_vlans_);
}

void nac_table::end_recovery() {
    ++version_;
    const auto drop = [](auto&... held) { (held.drop_stale(), ...); };
    drop(users_, apps_, default_reads_, l4ports_, egress_ports_, cpu_protection_, router_acl_,
         offline_detection_, direct_vlans_);
}

std::string nac_table::text() const {
    std::string out;
    const auto sink = std::back_inserter(out);
    for (const nac_user& user : users()) {
        fmt::format_to(sink, "{}\n", text_of(user));
    }
    apps_.for_each([&](const nac_app& app, u32 operation) {
        fmt::format_to(sink, "app type {} ifx {} vid {} operation {}\n", app.type, app.ifx, app.vid,
                       operation);
    });
    default_reads_.for_each([&](const nac_app& read, u32) {
        fmt::format_to(sink, "default read ifx {} type {}\n", read.ifx, read.type);
    });
    append_numbers(out, "layer-4 ports", l4ports());
    append_numbers(out, "egress ports", egress_ports());
    append_numbers(out, "cpu protection", cpu_protection());
    const scc_vlan_record& vlans = direct_vlans_.get();
    const auto direct = devkit::vlans_of({vlans.bytes, sizeof vlans.bytes});
    if (!direct.empty()) {
        fmt::format_to(sink, "direct vlans {}\n", fmt::join(direct, " "));
    }
    fmt::format_to(sink, "router acl {}\n", router_acl_.get() ? "open" : "closed");
    fmt::format_to(sink, "offline detection {} interval {} threshold {}\n",
                   detection().open ? "open" : "closed", detection().interval_seconds, detection().threshold);
    fmt::format_to(sink, "authentication mode {}\n", auth_mode_);
    return out;
}

}  // namespace scc::service
