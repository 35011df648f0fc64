#include "sccd/requests.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "sccd/request_handlers.h"

namespace scc::sccd {
namespace {

using devkit::answer_kind;
using devkit::message_route;
using devkit::wire_item;

struct request_row {
    u16 type = 0;
    void (*handle)(daemon_core&, const client_request&) = nullptr;
};

// Types without a row are settings that the daemon keeps and does nothing else with.
constexpr std::array table{
    request_row{msg::http_dport, handlers::service_setting},
    request_row{msg::dirchn_host, handlers::direct_channel},
    request_row{msg::dirchn_server, handlers::direct_channel},
    request_row{msg::dirchn_site, handlers::direct_channel},
    request_row{msg::nac_esc, handlers::nac_esc},
    request_row{msg::nac_app, handlers::service_setting},
    request_row{msg::nac_user, handlers::nac_user},
    request_row{msg::acl, handlers::acl},
    request_row{msg::ace, handlers::ace},
    request_row{msg::acl_apply, handlers::acl_apply},
    request_row{msg::user_acl, handlers::user_acl},
    request_row{msg::user_acl_delete_vmsup, handlers::user_acl_delete_vmsup},
    request_row{msg::acl_resequence, handlers::acl_resequence},
    request_row{msg::filter_counter_reset, handlers::filter_counter_reset},
    request_row{msg::acl_counter_reset, handlers::acl_counter_reset},
    request_row{msg::ace_counter_reset, handlers::ace_counter_reset},
    request_row{msg::global_eport, handlers::service_setting},
    request_row{msg::svi_router_acl, handlers::service_setting},
    request_row{msg::efacl_ctrl, handlers::efacl_ctrl},
    request_row{msg::cpp, handlers::service_setting},
    request_row{msg::arp_entry, handlers::arp_entry},
    request_row{msg::offline_detect_cfg, handlers::service_setting},
    request_row{msg::direct_vlan, handlers::direct_vlan},
    request_row{msg::arp_dyn_entry, handlers::arp_entry},
    request_row{msg::data_recover, handlers::data_recover},
    request_row{msg::test_cmd, handlers::test_cmd},
    request_row{msg::water_line, handlers::water_line},
    request_row{msg::arp_check_status, handlers::arp_check_status},
    request_row{msg::arp_check_user_count, handlers::arp_check_user_count},
    request_row{msg::arp_check_user_data, handlers::arp_check_user_data},
    request_row{msg::nac_user_get, handlers::nac_user_get},
    request_row{msg::filter_counter_get, handlers::filter_counter_get},
    request_row{msg::acl_counter_get, handlers::acl_counter_get},
    request_row{msg::ace_counter_get, handlers::ace_counter_get},
    request_row{msg::user_vmsup_get, handlers::user_vmsup_get},
    request_row{msg::mac_query, handlers::mac_query},
    request_row{msg::port_addr_num, handlers::port_addr_num},
};

static_assert(std::adjacent_find(table.begin(), table.end(), [](const request_row& a, const request_row& b) {
                  return a.type >= b.type;
              }) == table.end());

const request_row* find_row(u16 type) {
    const auto row = std::lower_bound(table.begin(), table.end(), type,
                                      [](const request_row& a, u16 wanted) { return a.type < wanted; });
    return row != table.end() && row->type == type ? &*row : nullptr;
}

// Obeys a fault. Returns whether the request is carried out.
bool goes_on(daemon_core& daemon, request_ticket& ticket, const fault_effect& fault) {
    daemon.trace.note(fmt::format("{}: a fault on purpose", ticket.type->name));
    switch (fault.action) {
        case fault_action::refuse:
            daemon.answer(ticket, fault.result);
            return false;
        case fault_action::mute:
            return false;
        case fault_action::disconnect:
            daemon.clients.disconnect(ticket.client);
            return false;
        case fault_action::restart:
            daemon.clients.restart(fault.time);
            return false;
        case fault_action::stop_reading:
            daemon.clients.stop_reading(ticket.client, fault.time);
            return true;
        default:
            ticket.fault = fault;
            return true;
    }
}

}  // namespace

void take_request(daemon_core& daemon, const client_entry& client, const wire_item& item) {
    const devkit::message_type* const type = devkit::find_message(message_route::request, item.type);
    if (type == nullptr) {
        return daemon.trace.note(fmt::format("type {} of app {} is no request", item.type, client.app_id));
    }
    if (type->answer == answer_kind::result && item.value.size() < sizeof(u32)) {
        return daemon.trace.note(fmt::format("a {} request without a call id is ignored", type->name));
    }
    request_ticket ticket{client.id, devkit::u32_at(item.value, 0), type, {}};
    if (const auto fault = daemon.faults.take(item.type, client.app_id, client.pid);
        fault && !goes_on(daemon, ticket, *fault)) {
        return;
    }
    if (item.value.size() < type->least_bytes) {
        return daemon.answer(ticket, result::invalid_argument);
    }
    const request_row* const row = find_row(item.type);
    if (row != nullptr) {
        row->handle(daemon, {ticket, item.value, client});
    } else if (find_setting(item.type) != nullptr) {
        handlers::setting(daemon, {ticket, item.value, client});
    } else {
        daemon.answer(ticket, result::ok);
    }
}

}  // namespace scc::sccd
