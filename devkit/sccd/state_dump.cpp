#include "sccd/state_dump.h"

namespace scc::sccd {
namespace {

using devkit::View;

Json key_fields(const devkit::AclKey& key) {
    return {{"vdev", key.vdev}, {"type", key.app_type}, {"id", key.acl_id}, {"class", key.acl_class}};
}

}  // namespace

Json dump_acls(const AclStore& store) {
    Json list = Json::array();
    for (const auto& [key, acl] : store.acls()) {
        Json entry = key_fields(acl.key);
        entry["pid"] = devkit::u32_at(acl.creation, 20);
        entry["app"] = devkit::u32_at(acl.creation, 24);
        entry["sn_start"] = acl.sn_start;
        entry["sn_increment"] = acl.sn_increment;
        entry["aces"] = Json::array();
        for (const auto& [sn, ace] : acl.aces) entry["aces"].push_back({{"sn", sn}, {"id", ace.id}});
        entry["applies"] = Json::array();
        for (const auto& [entity, record] : acl.applies) {
            const View bytes(record);
            entry["applies"].push_back(
                {{"ifx", devkit::u32_at(bytes, devkit::apply_record::ifx)},
                 {"direction", devkit::u32_at(bytes, devkit::apply_record::direction)},
                 {"apply_type", devkit::u32_at(bytes, devkit::apply_record::apply_type)}});
        }
        list.push_back(std::move(entry));
    }
    return list;
}

Json dump_counters(const AclStore& store) {
    Json list = Json::array();
    for (const auto& [key, acl] : store.acls()) {
        Json entry = key_fields(acl.key);
        entry["acl"] = acl.counter;
        entry["filter"] = acl.filter_counter;
        entry["aces"] = Json::array();
        for (const auto& [sn, ace] : acl.aces) {
            entry["aces"].push_back({{"sn", sn}, {"id", ace.id}, {"ace", ace.counter}});
        }
        list.push_back(std::move(entry));
    }
    return list;
}

Json dump_users(const ConfigRecords& records) {
    namespace config = devkit::config_record;
    Json list = Json::array();
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

Json dump_settings(const Settings& settings) {
    Json egress_ports = Json::array();
    for (const auto& [ifx, value] : settings.egress_ports)
        egress_ports.push_back({{"ifx", ifx}, {"value", value}});
    Json nac_apps = Json::array();
    for (const auto& [app, word] : settings.nac_apps) {
        nac_apps.push_back({{"ifx", app.ifx}, {"type", app.type}, {"vid", app.vid}, {"op", word}});
    }
    Json cpu_protection = Json::array();
    for (const auto& [type, enable] : settings.cpu_protection) {
        cpu_protection.push_back({{"type", type}, {"enable", enable}});
    }
    Json router_acl;
    if (settings.router_acl) router_acl = *settings.router_acl;
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
