#include "sccd/state_dump.h"

#include <algorithm>
#include <cstring>

#include "ace_text.h"

namespace scc::sccd {
namespace {

using devkit::byte_view;

json key_fields(const devkit::acl_identity& key) {
    return {{"vdev", key.vdev}, {"type", key.app_type}, {"id", key.acl_id}, {"class", key.acl_class}};
}

// The rule as text; "bytes" as well if numbers and text do not give the whole record.
json show_ace(u32 sn, const ace_entry& ace) {
    json shown = {{"sn", sn}, {"id", ace.id}};
    scc_ace_record record{};
    std::memcpy(&record, ace.record.data(), std::min(sizeof record, ace.record.size()));
    scc_ace_record again{};
    again.sn = sn;
    again.ace_id = ace.id;
    if (const auto rule = ace::print_ace(record)) {
        std::string ignored;
        again = ace::parse_ace(*rule, ignored).value_or(again);
        shown["rule"] = *rule;
    }
    if (std::memcmp(&again, &record, sizeof record) != 0) {
        shown["bytes"] = devkit::hex_text(ace.record);
    }
    return shown;
}

// "bytes" if these fields are not the whole entity that the ACL is applied to.
json show_apply(byte_view record) {
    namespace apply = devkit::apply_record;
    json shown = {{"ifx", devkit::u32_at(record, apply::ifx)},
                  {"direction", devkit::u32_at(record, apply::direction)},
                  {"apply_type", devkit::u32_at(record, apply::apply_type)}};
    devkit::byte_buffer rest = devkit::to_bytes(record);
    devkit::write_key(rest, 0, {});
    const std::string bytes = devkit::hex_text(rest);
    for (const std::size_t field : {apply::ifx, apply::direction, apply::apply_type}) {
        devkit::write_at(rest, field, 0u);
    }
    if (std::any_of(rest.begin(), rest.end(), [](u8 byte) { return byte != 0; })) {
        shown["bytes"] = bytes;
    }
    return shown;
}

}  // namespace

json dump_acls(const acl_store& store) {
    json list = json::array();
    for (const auto& [key, acl] : store.acls()) {
        json entry = key_fields(acl.key);
        entry["pid"] = devkit::u32_at(acl.creation, 20);
        entry["app"] = devkit::u32_at(acl.creation, 24);
        entry["sn_start"] = acl.sn_start;
        entry["sn_increment"] = acl.sn_increment;
        entry["aces"] = json::array();
        for (const auto& [sn, ace] : acl.aces) {
            entry["aces"].push_back(show_ace(sn, ace));
        }
        entry["applies"] = json::array();
        for (const auto& [entity, record] : acl.applies) {
            entry["applies"].push_back(show_apply(record));
        }
        list.push_back(std::move(entry));
    }
    return list;
}

json dump_counters(const acl_store& store) {
    json list = json::array();
    for (const auto& [key, acl] : store.acls()) {
        json entry = key_fields(acl.key);
        entry["acl"] = acl.counter;
        entry["filter"] = acl.filter_counter;
        entry["aces"] = json::array();
        for (const auto& [sn, ace] : acl.aces) {
            entry["aces"].push_back({{"sn", sn}, {"id", ace.id}, {"ace", ace.counter}});
        }
        list.push_back(std::move(entry));
    }
    return list;
}

json dump_users(const config_records& records) {
    namespace config = devkit::config_record;
    json list = json::array();
    for (const auto& [mac, bytes] : records) {
        const bool is_ipv6 = (devkit::u32_at(bytes, config::flags) & config::flag_ipv6) != 0;
        list.push_back({{"mac", devkit::mac_text(mac)},
                        {"ip", is_ipv6 ? devkit::ipv6_text(devkit::slice(bytes, config::ipv6, 16))
                                       : devkit::ipv4_text(devkit::u32_at(bytes, config::ipv4))},
                        {"ifx", devkit::u32_at(bytes, config::ifx)},
                        {"vid", devkit::u32_at(bytes, config::vid)},
                        {"app_type", devkit::u32_at(bytes, config::app_type)}});
    }
    return list;
}

json dump_settings(const daemon_settings& settings) {
    json egress_ports = json::array();
    for (const auto& [ifx, value] : settings.egress_ports) {
        egress_ports.push_back({{"ifx", ifx}, {"value", value}});
    }
    json nac_apps = json::array();
    for (const auto& [app, word] : settings.nac_apps) {
        nac_apps.push_back({{"ifx", app.ifx}, {"type", app.type}, {"vid", app.vid}, {"op", word}});
    }
    json cpu_protection = json::array();
    for (const auto& [type, enable] : settings.cpu_protection) {
        cpu_protection.push_back({{"type", type}, {"enable", enable}});
    }
    json router_acl;
    if (settings.router_acl) {
        router_acl = *settings.router_acl;
    }
    return {{"egress_ports", egress_ports},
            {"nac_apps", nac_apps},
            {"cpp", cpu_protection},
            {"router_acl", router_acl},
            {"http_ports", settings.http_ports},
            {"offline_detection", settings.offline_detection.has_value()},
            {"direct_vlan", settings.direct_vlan.has_value()},
            {"arp_check", settings.arp_check_ifxs}};
}

}  // namespace scc::sccd
