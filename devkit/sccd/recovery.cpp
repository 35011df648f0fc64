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

service_operation application_of(byte_view record) {
    service_operation apply = operation(msg::acl_apply, msg::acl_apply, 248);
    devkit::copy_at(apply.value, 8, record);
    devkit::write_at(apply.value, 240, set_word);
    return apply;
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
        operations.push_back(application_of(record));
    }
}

service_operation two_words(u16 type, std::size_t len, u32 first, u32 second) {
    service_operation words = operation(type, type, len);
    devkit::write_at(words.value, 4, first);
    devkit::write_at(words.value, 8, second);
    return words;
}

void recover_settings(const daemon_settings& settings, operation_list& operations) {
    for (const auto& [ifx, value] : settings.egress_ports) {
        operations.push_back(two_words(msg::global_eport, 16, ifx, value));
    }
    if (settings.router_acl) {
        operations.push_back(two_words(msg::svi_router_acl, 8, *settings.router_acl, 0));
    }
    for (const auto& [type, enable] : settings.cpu_protection) {
        operations.push_back(two_words(msg::cpp, 12, enable, type));
    }
    for (const auto& [app, word] : settings.nac_apps) {
        operations.push_back(nac_app_operation(app, word));
    }
    if (settings.offline_detection) {
        operations.push_back(
            {msg::offline_detect_notify, msg::offline_detect_cfg, *settings.offline_detection});
    }
    if (settings.direct_vlan) {
        operations.push_back({msg::direct_vlan_notify, msg::direct_vlan, *settings.direct_vlan});
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

void recover_ports(const daemon_settings& settings, operation_list& operations) {
    if (settings.http_ports.empty()) {
        return;
    }
    service_operation list =
        operation(msg::nacm_l4port_recover, msg::http_dport, 4 + settings.http_ports.size() * sizeof(u32));
    devkit::write_at(list.value, 0, static_cast<u32>(settings.http_ports.size()));
    std::size_t offset = 4;
    for (const u32 port : settings.http_ports) {
        devkit::write_at(list.value, offset, port);
        offset += sizeof port;
    }
    operations.push_back(std::move(list));
}

}  // namespace

service_operation nac_app_operation(const nac_application& app, u32 operation_word) {
    const bool with_vid = app.vid != 0;
    service_operation set =
        operation(with_vid ? msg::nacm_app_with_vid : msg::nacm_app, msg::nac_app, with_vid ? 24 : 16);
    devkit::write_at(set.value, 4, app.ifx);
    devkit::write_at(set.value, 8, operation_word);
    devkit::write_at(set.value, 12, app.type);
    devkit::write_at(set.value, 20, app.vid);
    return set;
}

service_operation nac_user_operation(byte_view config_record, bool add) {
    service_operation user = operation(msg::nacm_user, msg::nac_user, 96);
    devkit::write_at(user.value, 4, add ? u8{1} : u8{0});
    devkit::copy_at(user.value, 8, service_user_entry(config_record));
    return user;
}

service_operation http_port_operation(u32 port, bool add) {
    service_operation set = operation(msg::nacm_l4port, msg::http_dport, 24);
    devkit::write_at(set.value, 8, u64{port});
    devkit::write_at(set.value, 16, add ? 1u : 0u);
    return set;
}

std::vector<service_operation> recovery_operations(const acl_store& acls, const user_store& users,
                                                   const daemon_settings& settings) {
    operation_list operations;
    operations.push_back(recovery_mark(true));
    for (const auto& [key, acl] : acls.acls()) {
        recover_acl(acl, operations);
    }
    recover_settings(settings, operations);
    recover_users(users, operations);
    recover_ports(settings, operations);
    operations.push_back(recovery_mark(false));
    return operations;
}

}  // namespace scc::sccd
