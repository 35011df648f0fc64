#include "model/recorder.h"

#include "support/result_handlers.h"

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
    SCC_RESULT_HANDLERS(INSTALL)
    // clang-format off
    INSTALL(server_status) INSTALL(direct_vlan_notify) INSTALL(authmode) INSTALL(station_move) INSTALL(flow)
    INSTALL(offline_detect_notify) INSTALL(dirchn) INSTALL(port_violate_notify) INSTALL(user_roll)
    INSTALL(water_line)
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
