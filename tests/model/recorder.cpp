#include "model/recorder.h"

namespace model {
namespace {

#define POSITION(member) (offsetof(scc_handlers, member) / sizeof(void*))
#define INSTALL(member) install<POSITION(member)>(to.member);

// Lists with a count, and blocks whose length is another argument.
void install_lists(scc_handlers& to) {
    to.d1x_addr_move = [](u32 count, const scc_address_move* moves) {
        bytes told;
        append_number(told, count);
        append_block(told, moves, count * sizeof *moves);
        heard_by_handler(POSITION(d1x_addr_move), std::move(told));
    };
    to.noflow_offline = [](const scc_flow_user* user, u64 flow, u64 time, const void* extra,
                           u32 extra_bytes) {
        bytes told;
        append_block(told, user, sizeof *user);
        append_number(told, flow);
        append_number(told, time);
        append_block(told, extra, extra_bytes);
        append_number(told, extra_bytes);
        heard_by_handler(POSITION(noflow_offline), std::move(told));
    };
    to.ace_counters = [](const scc_acl_key* key, u32 count, const scc_ace_counter* counters) {
        bytes told;
        append_block(told, key, sizeof *key);
        append_number(told, count);
        append_block(told, counters, count * sizeof *counters);
        heard_by_handler(POSITION(ace_counters), std::move(told));
    };
    to.efacl_ctrl = [](u32 result, u32 call_id, const void* data, std::int32_t data_bytes) {
        bytes told;
        append_number(told, result);
        append_number(told, call_id);
        append_block(told, data, static_cast<std::size_t>(data_bytes));
        append_number(told, data_bytes);
        heard_by_handler(POSITION(efacl_ctrl), std::move(told));
    };
    to.user_change = [](u8 add, const void* user, const void* detail) {
        bytes told;
        append_number(told, add);
        append_block(told, user, 56);
        append_block(told, detail, 8);
        heard_by_handler(POSITION(user_change), std::move(told));
        return answer_to_user_change(add);
    };
}

}  // namespace

scc_handlers application_handlers(const start_facts& facts) {
    scc_handlers to{};
    // clang-format off
    INSTALL(server_status) INSTALL(d1x_authen_method) INSTALL(d1x_author_mode) INSTALL(d1x_port_addr_num)
    INSTALL(d1x_port_open) INSTALL(d1x_pt_ctrl) INSTALL(d1x_cos) INSTALL(d1x_dscp) INSTALL(d1x_redirect)
    INSTALL(d1x_mac_move) INSTALL(webauth) INSTALL(http_dport) INSTALL(dirchn_host) INSTALL(dirchn_server)
    INSTALL(dirchn_site) INSTALL(dirchn_arp) INSTALL(port_security) INSTALL(reserved_kind_17)
    INSTALL(global_ip_mac) INSTALL(ip_source_guard) INSTALL(bind_except_port) INSTALL(dhcp_trust_port)
    INSTALL(arpcheck) INSTALL(addr_learning) INSTALL(nac_esc) INSTALL(nac_esc_eport) INSTALL(nac_app)
    INSTALL(nac_user) INSTALL(ndsnp_default_bind) INSTALL(reserved_kind_29) INSTALL(nac_neighbour)
    INSTALL(acl_create) INSTALL(acl_delete) INSTALL(acl_add_ace) INSTALL(acl_delete_ace) INSTALL(acl_apply)
    INSTALL(acl_unapply) INSTALL(user_acl_apply) INSTALL(user_acl_unapply) INSTALL(user_acl_delete_vmsup)
    INSTALL(acl_resequence) INSTALL(filter_counter_reset) INSTALL(acl_counter_reset)
    INSTALL(ace_counter_reset) INSTALL(global_eport) INSTALL(svi_router_acl) INSTALL(direct_vlan_notify)
    INSTALL(authmode) INSTALL(dhcp_snooping) INSTALL(dhcp_snooping_second) INSTALL(nd_snooping) INSTALL(cpp)
    INSTALL(station_move) INSTALL(flow) INSTALL(arpcheck_trust) INSTALL(arp_entry)
    INSTALL(offline_detect_cfg) INSTALL(offline_detect_notify) INSTALL(direct_vlan) INSTALL(dirchn)
    INSTALL(port_violate_notify) INSTALL(user_roll) INSTALL(water_line) INSTALL(arp_dyn_entry)
    INSTALL(port_violate)
        // clang-format on
        install_lists(to);
    for (u32 position = 0; position < sizeof to / sizeof(void*); ++position) {
        if (is_absent(facts, position)) {
            std::memset(reinterpret_cast<u8*>(&to) + position * sizeof(void*), 0, sizeof(void*));
        }
    }
    return to;
}

scc_ss_reg_info service_handlers(const start_facts& facts) {
    scc_ss_reg_info to{};
    install<0>(to.server_status);
    install_operation<1>(to.acl_create);
    install_operation<2>(to.acl_delete);
    install_operation<3>(to.add_ace);
    install_operation<4>(to.delete_ace);
    install_operation<5>(to.apply);
    install_operation<6>(to.unapply);
    install_operation<7>(to.resequence);
    install_operation<8>(to.svi_router_acl);
    install_operation<9>(to.acl_counter);
    install_operation<10>(to.ace_counter);
    install_operation<11>(to.uplink);
    install_operation<12>(to.cpp);
    install<47>(to.direct_vlan_notify);
    install<49>(to.authmode);
    for (u32 slot = 0; slot < sizeof to / sizeof(void*); ++slot) {
        if (is_absent(facts, slot)) {
            std::memset(reinterpret_cast<u8*>(&to) + slot * sizeof(void*), 0, sizeof(void*));
        }
    }
    return to;
}

}  // namespace model
