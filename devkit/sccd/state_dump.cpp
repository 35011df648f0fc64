#include "sccd/state_dump.h"

namespace scc::sccd {
namespace {

using devkit::byte_view;

json key_fields(const devkit::acl_identity& key) {
    return {{"vdev", key.vdev}, {"type", key.app_type}, {"id", key.acl_id}, {"class", key.acl_class}};
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
            entry["aces"].push_back({{"sn", sn}, {"id", ace.id}});
        }
        entry["applies"] = json::array();
        for (const auto& [entity, record] : acl.applies) {
            const byte_view bytes(record);
            entry["applies"].push_back(
                {{"ifx", devkit::u32_at(bytes, devkit::apply_record::ifx)},
                 {"direction", devkit::u32_at(bytes, devkit::apply_record::direction)},
                 {"apply_type", devkit::u32_at(bytes, devkit::apply_record::apply_type)}});
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
