// The rows of the synchronous queries and of the calls that the library answers itself.
#include <algorithm>

#include "command.h"
#include "common/bytes.h"
#include "common/records.h"

namespace scc::ctl {
namespace {

namespace at = devkit::config_record;
using arguments = std::vector<argument>;

constexpr std::uint32_t arp_check_users_max = 4096;

arguments record_fields() {
    return {field("ifx", at::ifx, 4, "interface index"),
            field("vid", at::vid, 4, "VLAN id, 0 for none"),
            field("mac", at::mac, 6, "MAC address").as(value_type::mac),
            field("app-type", at::app_type, 4, "application type"),
            field("operation", at::operation, 4, "what to do").named(devkit::names::operation),
            field("value", at::value, 4, "the setting itself"),
            field("ip", at::ipv4, 4, "IPv4 address").as(value_type::ipv4),
            field("ipv6", at::ipv6, 16, "IPv6 address").as(value_type::ipv6)};
}

arguments user_fields() {
    arguments fields = record_fields();
    std::erase_if(fields, [](const argument& each) { return each.name == "operation"; });
    fields.push_back(constant("operation", offsetof(scc_user_record, operation), SCC_USER_OPERATION_GET));
    return fields;
}

json shown_user(const scc_arp_check_entry& entry) {
    namespace user = devkit::arp_check_user;
    const devkit::byte_view bytes(entry.bytes, sizeof entry.bytes);
    return {{"ifx", devkit::u32_at(bytes, user::ifx)},
            {"vid", devkit::read_at<std::uint16_t>(bytes, user::vid)},
            {"mac", devkit::mac_text(devkit::mac_at(bytes, user::mac))},
            {"ip", ipv4_of(devkit::u32_at(bytes, user::ipv4))}};
}

std::uint32_t arp_check_users(std::uint32_t selector, std::uint32_t capacity, json* out) {
    std::vector<scc_arp_check_entry> users(std::max(capacity, 1u));
    auto count = static_cast<int>(capacity);
    const std::uint32_t result = scc_arp_check_user_data_get(selector, users.data(), &count);
    if (result != 0) {
        return result;
    }
    (*out)["count"] = count;
    json& list = (*out)["users"] = json::array();
    for (int i = 0; i < count; ++i) {
        list.push_back(shown_user(users[static_cast<std::size_t>(i)]));
    }
    return 0;
}

std::uint32_t bind_user_names(std::uint32_t mask, json* out) {
    char names[256] = "";
    scc_bind_user_name_get(static_cast<int>(mask), names, sizeof names);
    (*out)["names"] = names;
    return 0;
}

std::uint32_t error_text(std::uint32_t code, json* out) {
    (*out)["text"] = scc_strerror(static_cast<std::int32_t>(code));
    return 0;
}

argument mac_argument() {
    return number("mac", 6, "MAC address").as(value_type::mac).at(0, 0);
}

}  // namespace

std::vector<command> query_commands() {
    return {
        query<scc_mac_query>("mac-query", "scc_mac_query", "look up the IPv4 address of a MAC address",
                             "00:11:22:33:44:55", {mac_argument()}, {{"ip", value_type::ipv4}}),
        query<scc_sp_port_addr_num>("sp-port-addr-num", "scc_sp_port_addr_num",
                                    "ask about the number of addresses of a port; only the result comes back",
                                    "--ifx 3", record_fields(), {{"call-id"}}),
        query<scc_nac_user_get>("nac-user get", "scc_nac_user_get", "read a NAC user",
                                "--mac 00:11:22:33:44:55", user_fields(), {}),
        query<scc_nac_span_dport_set>("nac-span-dport-set", "scc_nac_span_dport_set",
                                      "set the mirror's destination port", "--ifx 3 --operation add",
                                      record_fields(), {{"call-id"}}),
        query<scc_is_arp_check_enabled>("is-arp-check-enabled", "scc_is_arp_check_enabled",
                                        "ask whether the ARP check is on", "", {}, {{"enabled"}}),
        query<scc_arp_check_user_count_get>("arp-check-user-count-get", "scc_arp_check_user_count_get",
                                            "count the users of the ARP check", "0",
                                            {number("key", 4, "which users")}, {{"count"}}),
        query<arp_check_users>("arp-check-user-data-get", "scc_arp_check_user_data_get",
                               "read the users of the ARP check", "0",
                               {number("selector", 4, "which users"), number("capacity", 4, "most users")
                                                                          .within(0, arp_check_users_max)
                                                                          .as(presence::option)
                                                                          .from(64)},
                               {}),
        query<scc_nac_user_counter_support>("nac-user-counter-support", "scc_nac_user_counter_support",
                                            "tell whether the device counts per NAC user", "", {},
                                            {{"supported"}}),
        local<scc_get_nac_max_user>(
            "get-nac-max-user", "scc_get_nac_max_user", "tell the most users of a NAC kind", "1",
            {number("kind", 4, "NAC kind").within(0, INT32_MAX)}, {{"a"}, {"b"}, {"c"}}),
        local<bind_user_names>("bind-user-name-get", "scc_bind_user_name_get",
                               "tell the names of the binding owners in a mask", "0x3E",
                               {number("mask", 4, "bits of the owners")}, {}),
        local<error_text>("strerror", "scc_strerror", "tell the text of a result code", "2005",
                          {number("code", 4, "result code").named(devkit::names::results)}, {}),
    };
}

}  // namespace scc::ctl
