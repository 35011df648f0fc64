#include "service/application.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "ace/ace_text.h"

namespace scc::service {
namespace {

constexpr u32 direction_in = 0;
constexpr unsigned ipv4_bits = 32;
constexpr unsigned ipv6_bits = 128;

scc_records_application fields_of(const scc_acl_apply_record& record) {
    scc_records_application fields{};
    (void)scc_records_decode_application(&record, &fields);
    return fields;
}

ace::mac_bytes mac_of(const scc_records_application& fields) {
    ace::mac_bytes mac{};
    std::ranges::copy(fields.mac, mac.begin());
    return mac;
}

bool has_ipv6(const scc_records_application& fields) {
    return std::ranges::any_of(fields.ipv6, [](u8 byte) { return byte != 0; });
}

// What the addresses have in common. The user sends the frames that enter, and gets those that leave.
ace::rule frames_of_user(const scc_records_application& fields, bool enters) {
    ace::rule rule;
    rule.family = SCC_ACE_EVERY_FRAME;
    if (mac_of(fields) != ace::mac_bytes{}) {
        scc_ace_mac& mac = enters ? rule.source_mac : rule.destination_mac;
        std::ranges::copy(fields.mac, mac.bytes);
        std::ranges::fill(mac.mask, u8{0xFF});
        rule.fields |= enters ? SCC_ACE_SOURCE_MAC : SCC_ACE_DESTINATION_MAC;
    }
    if (fields.vid != 0) {
        rule.fields |= SCC_ACE_VLAN;
        rule.vlan = fields.vid;
    }
    return rule;
}

std::vector<ace::rule> frames_of(const scc_records_application& fields, bool enters) {
    const ace::rule of_user = frames_of_user(fields, enters);
    std::vector<ace::rule> frames;
    if (fields.ipv4 != 0) {
        ace::rule& packets = frames.emplace_back(of_user);
        packets.family = SCC_ACE_IPV4;
        (void)scc_ace_ipv4(enters ? &packets.source : &packets.destination, fields.ipv4, ipv4_bits);
    }
    if (has_ipv6(fields)) {
        ace::rule& packets = frames.emplace_back(of_user);
        packets.family = SCC_ACE_IPV6;
        (void)scc_ace_ipv6(enters ? &packets.source : &packets.destination, fields.ipv6, ipv6_bits);
    }
    if (frames.empty() && of_user.fields != 0) {
        frames.push_back(of_user);
    }
    return frames;
}

}  // namespace

application_place place_of(const scc_acl_apply_record& record) {
    const scc_records_application fields = fields_of(record);
    const bool enters = fields.direction == direction_in;
    return {fields.ifx, enters, frames_of(fields, enters)};
}

std::string user_text_of(const scc_acl_apply_record& record) {
    const scc_records_application fields = fields_of(record);
    std::string text;
    const auto sink = std::back_inserter(text);
    if (mac_of(fields) != ace::mac_bytes{}) {
        fmt::format_to(sink, " mac {}", ace::print_mac(mac_of(fields)));
    }
    if (fields.vid != 0) {
        fmt::format_to(sink, " vid {}", fields.vid);
    }
    if (fields.ipv4 != 0) {
        fmt::format_to(sink, " ip {}", devkit::ipv4_text(fields.ipv4));
    }
    if (has_ipv6(fields)) {
        fmt::format_to(sink, " ipv6 {}", devkit::ipv6_text(fields.ipv6));
    }
    return text;
}

std::string text_of(const scc_acl_apply_record& record) {
    const scc_records_application fields = fields_of(record);
    return fmt::format("{} ifx {}{}", fields.direction == direction_in ? "in" : "out", fields.ifx,
                       user_text_of(record));
}

}  // namespace scc::service
