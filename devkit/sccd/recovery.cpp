#include "sccd/recovery.h"

#include <algorithm>
#include <utility>

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
namespace config = devkit::config_record;

using operation_list = std::vector<service_operation>;

constexpr u32 set_word = 1;
constexpr std::size_t users_per_message = 512;
constexpr std::size_t offline_bytes = 16;

// The scc-type is the number of the request that asked for the operation.
service_operation operation(u16 type, u16 scc_type, std::size_t len) {
    return {type, scc_type, byte_buffer(len, 0)};
}

service_operation recovery_mark(bool start) {
    service_operation mark = operation(msg::data_recover, msg::data_recover, 16);
    devkit::write_at(mark.value, 4, limits::service_app_id);
    devkit::write_at(mark.value, 8, start ? 1u : 0u);
    return mark;
}

service_operation resequence_of(const acl_entry& acl) {
    service_operation resequence = operation(msg::acl_resequence, msg::acl_resequence, 28);
    devkit::write_key(resequence.value, 4, acl.key);
    devkit::write_at(resequence.value, 20, acl.sn_start);
    devkit::write_at(resequence.value, 24, acl.sn_increment);
    return resequence;
}

service_operation addition_of(const acl_entry& acl, const ace_entry& ace) {
    service_operation addition = operation(msg::ace, msg::ace, 944);
    devkit::write_key(addition.value, 4, acl.key);
    devkit::copy_at(addition.value, 24, ace.record);
    devkit::write_at(addition.value, 936, set_word);
    return addition;
}

service_operation application_of(byte_view record, u16 scc_type, bool apply) {
    service_operation application = operation(msg::acl_apply, scc_type, 248);
    devkit::copy_at(application.value, 8, record);
    devkit::write_at(application.value, 240, apply ? set_word : 0u);
    return application;
}

// Without a type of its own, an ACL is applied under its key's.
byte_buffer application_of_user(byte_view user_acl) {
    namespace from = devkit::user_acl_record;
    namespace to = devkit::apply_record;
    const devkit::acl_identity key = devkit::key_at(user_acl, from::key);
    const u32 app_type = devkit::u32_at(user_acl, from::app_type);
    byte_buffer record(record::acl_apply, 0);
    devkit::write_key(record, 0, key);
    devkit::write_at(record, to::ifx, devkit::u32_at(user_acl, from::ifx));
    devkit::write_at(record, to::direction, devkit::u32_at(user_acl, from::direction));
    devkit::copy_at(record, to::mac, devkit::slice(user_acl, from::mac, 6));
    devkit::write_at(record, to::vid, devkit::read_at<u16>(user_acl, from::vid));
    devkit::write_at(record, to::ipv4, devkit::u32_at(user_acl, from::ipv4));
    devkit::copy_at(record, to::ipv6, devkit::slice(user_acl, from::ipv6, 16));
    devkit::write_at(record, to::phyid, devkit::u64_at(user_acl, from::phyid));
    devkit::write_at(record, to::apply_type, app_type != 0 ? app_type : key.app_type);
    return record;
}

// The numbering is sent while the ACL is still empty: the ACEs carry their current numbers, and those added
// since the resequencing must not be renumbered.
void recover_acl(const acl_entry& acl, operation_list& operations) {
    operations.push_back({msg::acl, msg::acl, acl.creation});
    if (acl.sn_increment != 0) {
        operations.push_back(resequence_of(acl));
    }
    for (const auto& [sn, ace] : acl.aces) {
        operations.push_back(addition_of(acl, ace));
    }
    for (const auto& [entity, record] : acl.applies) {
        operations.push_back(application_of(record, msg::acl_apply, true));
    }
}

void recover_user_acls(const acl_store& acls, operation_list& operations) {
    for (const auto& [user, record] : acls.user_acls()) {
        operations.push_back(user_acl_operation(record, true));
    }
}

void recover_settings(const setting_store& settings, operation_list& operations) {
    for (const u16 type : {msg::global_eport, msg::svi_router_acl, msg::cpp, msg::nac_app,
                           msg::offline_detect_cfg, msg::direct_vlan}) {
        for (const auto& [key, record] : settings.records(type)) {
            operations.push_back(setting_operation(type, record));
        }
    }
}

// One list per application type and interface, split if it is long.
void recover_users(const user_store& users, operation_list& operations) {
    std::map<std::pair<u32, u32>, std::vector<byte_view>> groups;
    for (const auto& [mac, record] : users.users()) {
        groups[{devkit::u32_at(record, config::app_type), devkit::u32_at(record, config::ifx)}].emplace_back(
            record);
    }
    for (const auto& [group, records] : groups) {
        for (std::size_t first = 0; first < records.size(); first += users_per_message) {
            const std::size_t count = std::min(users_per_message, records.size() - first);
            service_operation list =
                operation(msg::nacm_app_user_recover, msg::nac_user, 16 + count * record::service_user);
            devkit::write_at(list.value, 0, group.first);
            devkit::write_at(list.value, 8, group.second);
            devkit::write_at(list.value, 12, static_cast<u32>(count));
            for (std::size_t index = 0; index < count; ++index) {
                devkit::copy_at(list.value, 16 + index * record::service_user,
                                service_user_entry(records[first + index]));
            }
            operations.push_back(std::move(list));
        }
    }
}

void recover_ports(const setting_store& settings, operation_list& operations) {
    const auto& ports = settings.records(msg::http_dport);
    if (ports.empty()) {
        return;
    }
    service_operation list =
        operation(msg::nacm_l4port_recover, msg::http_dport, 4 + ports.size() * sizeof(u32));
    devkit::write_at(list.value, 0, static_cast<u32>(ports.size()));
    std::size_t offset = 4;
    for (const auto& [key, record] : ports) {
        devkit::write_at(list.value, offset, u32{devkit::read_at<u16>(record, 4)});
        offset += sizeof(u32);
    }
    operations.push_back(std::move(list));
}

service_operation nac_app_operation(byte_view value) {
    const byte_view record = devkit::slice(value, 8, record::config);
    const u32 vid = devkit::u32_at(record, config::vid);
    const bool with_vid = vid != 0;
    service_operation set =
        operation(with_vid ? msg::nacm_app_with_vid : msg::nacm_app, msg::nac_app, with_vid ? 24 : 16);
    devkit::write_at(set.value, 4, devkit::u32_at(record, config::ifx));
    devkit::write_at(set.value, 8, devkit::u32_at(record, config::operation));
    devkit::write_at(set.value, 12, devkit::u32_at(record, config::app_type));
    devkit::write_at(set.value, 20, vid);
    return set;
}

service_operation http_port_operation(byte_view value) {
    service_operation set = operation(msg::nacm_l4port, msg::http_dport, 24);
    devkit::write_at(set.value, 8, u64{devkit::read_at<u16>(value, 4)});
    devkit::write_at(set.value, 16, devkit::u32_at(value, 8) != 0 ? 1u : 0u);
    return set;
}

// The value of the request, under another number and with another length.
service_operation same_value(u16 type, u16 scc_type, byte_view value, std::size_t len) {
    service_operation same{type, scc_type, devkit::to_bytes(devkit::slice(value, 0, len))};
    same.value.resize(len);
    devkit::write_at(same.value, 0, 0u);
    return same;
}

service_operation offline_operation(byte_view value) {
    service_operation set =
        same_value(msg::offline_detect_notify, msg::offline_detect_cfg, value, offline_bytes);
    // Applications send a word, of which the service reads one byte.
    devkit::write_at(set.value, 4, devkit::u32_at(value, 4) != 0 ? 1u : 0u);
    return set;
}

}  // namespace

service_operation setting_operation(u16 type, byte_view value) {
    switch (type) {
        case msg::http_dport:
            return http_port_operation(value);
        case msg::nac_app:
            return nac_app_operation(value);
        case msg::offline_detect_cfg:
            return offline_operation(value);
        case msg::direct_vlan:
            return same_value(msg::direct_vlan_notify, type, value, find_setting(type)->bytes);
        default:
            return same_value(type, type, value, find_setting(type)->bytes);
    }
}

service_operation user_acl_operation(byte_view user_acl_record, bool apply) {
    return application_of(application_of_user(user_acl_record), msg::user_acl, apply);
}

service_operation nac_user_operation(byte_view config_record, bool add) {
    service_operation user = operation(msg::nacm_user, msg::nac_user, 96);
    devkit::write_at(user.value, 4, add ? u8{1} : u8{0});
    devkit::copy_at(user.value, 8, service_user_entry(config_record));
    return user;
}

std::vector<service_operation> recovery_operations(const acl_store& acls, const user_store& users,
                                                   const setting_store& settings) {
    operation_list operations;
    operations.push_back(recovery_mark(true));
    for (const auto& [key, acl] : acls.acls()) {
        recover_acl(acl, operations);
    }
    recover_user_acls(acls, operations);
    recover_settings(settings, operations);
    recover_users(users, operations);
    recover_ports(settings, operations);
    operations.push_back(recovery_mark(false));
    return operations;
}

}  // namespace scc::sccd
