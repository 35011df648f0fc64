#include "sccd/requests.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "sccd/request_handlers.h"

namespace scc::sccd {
namespace {

using devkit::Answer;
using devkit::Item;
using devkit::Route;

struct Row {
    u16 type = 0;
    void (*handle)(Daemon&, const Request&) = nullptr;
};

// Types without a row are settings that nothing depends on: they are accepted.
constexpr std::array table{
    Row{msg::http_dport, handlers::http_dport},
    Row{msg::arpcheck, handlers::arpcheck},
    Row{msg::nac_app, handlers::nac_app},
    Row{msg::nac_user, handlers::nac_user},
    Row{msg::acl, handlers::acl},
    Row{msg::ace, handlers::ace},
    Row{msg::acl_apply, handlers::acl_apply},
    Row{msg::user_acl, handlers::user_acl},
    Row{msg::user_acl_delete_vmsup, handlers::user_acl_delete_vmsup},
    Row{msg::acl_resequence, handlers::acl_resequence},
    Row{msg::filter_counter_reset, handlers::filter_counter_reset},
    Row{msg::acl_counter_reset, handlers::acl_counter_reset},
    Row{msg::ace_counter_reset, handlers::ace_counter_reset},
    Row{msg::global_eport, handlers::global_eport},
    Row{msg::svi_router_acl, handlers::svi_router_acl},
    Row{msg::efacl_ctrl, handlers::efacl_ctrl},
    Row{msg::cpp, handlers::cpp},
    Row{msg::arp_entry, handlers::arp_entry},
    Row{msg::offline_detect_cfg, handlers::offline_detect_cfg},
    Row{msg::direct_vlan, handlers::direct_vlan},
    Row{msg::arp_dyn_entry, handlers::arp_entry},
    Row{msg::data_recover, handlers::data_recover},
    Row{msg::test_cmd, handlers::test_cmd},
    Row{msg::water_line, handlers::water_line},
    Row{msg::arp_check_status, handlers::arp_check_status},
    Row{msg::arp_check_user_count, handlers::arp_check_user_count},
    Row{msg::arp_check_user_data, handlers::arp_check_user_data},
    Row{msg::nac_user_get, handlers::nac_user_get},
    Row{msg::filter_counter_get, handlers::filter_counter_get},
    Row{msg::acl_counter_get, handlers::acl_counter_get},
    Row{msg::ace_counter_get, handlers::ace_counter_get},
    Row{msg::user_vmsup_get, handlers::user_vmsup_get},
    Row{msg::mac_query, handlers::mac_query},
    Row{msg::port_addr_num, handlers::port_addr_num},
};

static_assert(std::adjacent_find(table.begin(), table.end(),
                                 [](const Row& a, const Row& b) { return a.type >= b.type; }) == table.end());

const Row* find_row(u16 type) {
    const auto row = std::lower_bound(table.begin(), table.end(), type,
                                      [](const Row& a, u16 wanted) { return a.type < wanted; });
    return row != table.end() && row->type == type ? &*row : nullptr;
}

}  // namespace

void take_request(Daemon& daemon, const Client& client, const Item& item) {
    const devkit::MessageType* const type = devkit::find_message(Route::request, item.type);
    if (type == nullptr) {
        return daemon.trace.note(fmt::format("type {} of app {} is no request", item.type, client.app_id));
    }
    if (type->answer == Answer::result && item.value.size() < sizeof(u32)) {
        return daemon.trace.note(fmt::format("a {} request without a call id is ignored", type->name));
    }
    if (daemon.faults.take_mute(item.type)) {
        return daemon.trace.note(fmt::format("{} is muted", type->name));
    }
    const Ticket ticket{client.id, devkit::u32_at(item.value, 0), type};
    if (const auto failure = daemon.faults.take_failure(item.type)) return daemon.answer(ticket, *failure);
    if (item.value.size() < type->least_bytes) return daemon.answer(ticket, result::invalid_argument);
    const Row* const row = find_row(item.type);
    if (row == nullptr) return daemon.answer(ticket, result::ok);
    row->handle(daemon, {ticket, item.value, client});
}

}  // namespace scc::sccd
