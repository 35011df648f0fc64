// Item 401: u32 call id at 0, u32 result at 4. Runs on the thread that receives, takes scc_call_data_lock
// only to find the calls, and holds no lock while a handler runs.
#include "client/results.h"

#include <array>

#include "client/acl_cache.h"
#include "client/delivery.h"
#include "client/diagnostics.h"
#include "client/kinds.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/tuning.h"
#include "util/prefetch.h"

using namespace scc;

namespace scc {
namespace {

constexpr const char* function = "_scc_lib_call_ret_proc";

using deliver_function = void (*)(u32 result, u32 call_id, std::span<const u8> saved);

template <auto Handler, class... Arguments>
void deliver(u32 result, u32 call_id, std::span<const u8> saved) {
    using arguments = fields<Arguments...>;
    // Each handler takes the two numbers of item 401 first.
    static_assert(fit(fields<u32_at<4>, u32_at<0>, Arguments...>{}, handler_of<Handler>{}));
    const auto handler = load_handler(g_scc_client_cb.handlers.*Handler);
    if (handler != nullptr && saved.size() >= arguments::end) {
        arguments::pass_to(handler, saved, result, call_id);
    }
}

struct result_row {
    u32 kind;
    deliver_function deliver;
    u32 statistics = not_counted;
};

using handlers = scc_handlers;

// clang-format off
constexpr std::array result_table = std::to_array<result_row>({
    {kind::d1x_authen_method, deliver<&handlers::d1x_authen_method, whole_record>},
    {kind::d1x_author_mode, deliver<&handlers::d1x_author_mode, whole_record>},
    {kind::d1x_port_addr_num, deliver<&handlers::d1x_port_addr_num, whole_record>},
    {kind::d1x_port_open, deliver<&handlers::d1x_port_open, whole_record>},
    {kind::d1x_pt_ctrl, deliver<&handlers::d1x_pt_ctrl, whole_record>},
    {kind::d1x_cos, deliver<&handlers::d1x_cos, whole_record>},
    {kind::d1x_dscp, deliver<&handlers::d1x_dscp, whole_record>},
    {kind::d1x_redirect, deliver<&handlers::d1x_redirect, u8_at<0>>},
    {kind::d1x_mac_move, deliver<&handlers::d1x_mac_move, u8_at<0>>},
    {kind::webauth, deliver<&handlers::webauth, whole_record>},
    {kind::http_dport, deliver<&handlers::http_dport, u16_at<0>, u8_at<2>>},
    {kind::dirchn_host, deliver<&handlers::dirchn_host, u32_at<0>, u32_at<4>, u8_at<8>, u32_at<9>, u8_at<13>>},
    {kind::dirchn_server, deliver<&handlers::dirchn_server, u32_at<0>, u8_at<4>>},
    {kind::dirchn_site, deliver<&handlers::dirchn_site, u32_at<0>, u32_at<4>, u8_at<8>, u8_at<9>>},
    {kind::dirchn_arp, deliver<&handlers::dirchn_arp, u32_at<0>, u32_at<4>, u8_at<9>>},
    {kind::port_security, deliver<&handlers::port_security, whole_record>},
    {kind::reserved_kind_17, deliver<&handlers::reserved_kind_17, whole_record>},
    {kind::global_ip_mac, deliver<&handlers::global_ip_mac, whole_record>},
    {kind::ip_source_guard, deliver<&handlers::ip_source_guard, whole_record>},
    {kind::bind_except_port, deliver<&handlers::bind_except_port, whole_record>},
    {kind::dhcp_trust_port, deliver<&handlers::dhcp_trust_port, whole_record>},
    {kind::arpcheck, deliver<&handlers::arpcheck, whole_record>},
    {kind::addr_learning, deliver<&handlers::addr_learning, u32_at<0>, u8_at<4>>},
    {kind::nac_esc, deliver<&handlers::nac_esc, u32_at<0>, pointer_at<4>, u8_at<20>>},
    {kind::nac_esc_eport, deliver<&handlers::nac_esc_eport, whole_record>},
    {kind::nac_app, deliver<&handlers::nac_app, whole_record>},
    {kind::nac_user, deliver<&handlers::nac_user, whole_record>},
    {kind::ndsnp_default_bind, deliver<&handlers::ndsnp_default_bind, u32_at<0>, u32_at<4>, u8_at<8>>},
    {kind::reserved_kind_29, deliver<&handlers::reserved_kind_29, whole_record>},
    {kind::nac_neighbour, deliver<&handlers::nac_neighbour, whole_record, u8_at<912>>},
    {kind::acl_create, deliver<&handlers::acl_create, whole_record>, stat_acl_create},
    {kind::acl_delete, deliver<&handlers::acl_delete, whole_record>, stat_acl_delete},
    {kind::acl_add_ace, deliver<&handlers::acl_add_ace, whole_record, pointer_at<16>>, stat_ace_add},
    {kind::acl_delete_ace, deliver<&handlers::acl_delete_ace, whole_record, pointer_at<16>>, stat_ace_delete},
    {kind::acl_apply, deliver<&handlers::acl_apply, whole_record>, stat_acl_apply},
    {kind::acl_unapply, deliver<&handlers::acl_unapply, whole_record>, stat_acl_unapply},
    {kind::user_acl_apply, deliver<&handlers::user_acl_apply, whole_record>},
    {kind::user_acl_unapply, deliver<&handlers::user_acl_unapply, whole_record>},
    {kind::user_acl_delete_vmsup, deliver<&handlers::user_acl_delete_vmsup, whole_record>},
    {kind::acl_resequence, deliver<&handlers::acl_resequence, whole_record, u32_at<16>, u32_at<20>>},
    {kind::filter_counter_reset, deliver<&handlers::filter_counter_reset, whole_record>},
    {kind::acl_counter_reset, deliver<&handlers::acl_counter_reset, whole_record>},
    {kind::ace_counter_reset, deliver<&handlers::ace_counter_reset, whole_record, u64_at<16>>},
    {kind::global_eport, deliver<&handlers::global_eport, u32_at<0>, u8_at<4>>},
    {kind::svi_router_acl, deliver<&handlers::svi_router_acl, u8_at<0>>},
    {kind::unused_46, nullptr}, {kind::unused_47, nullptr}, {kind::unused_48, nullptr}, {kind::unused_49, nullptr},
    {kind::efacl_ctrl, deliver<&handlers::efacl_ctrl, whole_record, length_of_data>},
    {kind::dhcp_snooping, deliver<&handlers::dhcp_snooping, whole_record>},
    {kind::dhcp_snooping_second, deliver<&handlers::dhcp_snooping_second, whole_record>},
    {kind::nd_snooping, deliver<&handlers::nd_snooping, whole_record>},
    {kind::cpp, deliver<&handlers::cpp, u32_at<0>, u8_at<4>>},
    {kind::arpcheck_trust, deliver<&handlers::arpcheck_trust, whole_record>},
    {kind::arp_entry, deliver<&handlers::arp_entry, whole_record>},
    {kind::offline_detect_cfg, deliver<&handlers::offline_detect_cfg, u8_at<4>, u32_at<8>, u32_at<12>>},
    {kind::direct_vlan, deliver<&handlers::direct_vlan, u8_at<4>, pointer_at<8>>},
    {kind::arp_dyn_entry, deliver<&handlers::arp_dyn_entry, whole_record>},
    {kind::port_violate, deliver<&handlers::port_violate, whole_record>},
});
// clang-format on

consteval bool rows_are_complete_and_ordered() {
    for (u32 i = 0; i < result_table.size(); ++i) {
        if (result_table[i].kind != i + 1) {
            return false;
        }
    }
    return result_table.size() == kind::last;
}

static_assert(rows_are_complete_and_ordered());

// The saved operation decides: 1 added, 3 deleted, anything else is not counted.
u32 statistics_of_user(std::span<const u8> saved) {
    constexpr std::size_t operation_offset = offsetof(scc_user_record, operation);
    if (saved.size() < operation_offset + sizeof(u32)) {
        return not_counted;
    }
    switch (load<u32>(saved.data(), operation_offset)) {
        case SCC_USER_OPERATION_ADD:
            return stat_nac_user_add;
        case SCC_USER_OPERATION_DELETE:
            return stat_nac_user_delete;
        default:
            return not_counted;
    }
}

void deliver_result(u32 result, const pending_call& call) {
    const bool in_table = call.kind >= 1 && call.kind <= kind::last;
    const result_row row = in_table ? result_table[call.kind - 1] : result_row{call.kind, nullptr};
    if (row.deliver == nullptr) {
        SCC_LOG_FROM(function, "unknown scclib call ret id(%d).", call.kind);
        return;
    }
    const std::span saved{call.data(), static_cast<u32>(call.data_bytes)};
    const u32 statistics = call.kind == kind::nac_user ? statistics_of_user(saved) : row.statistics;
    if (statistics != not_counted) {
        count_callback(statistics, result == 0);
    }
    row.deliver(result, call.call_id, saved);
}

bool is_caching() {
    return g_scc_client_cb.option.load(relaxed) != 0;
}

// Calls the handler, then updates the cache, unless it was emptied while the handler ran. Sets `call` to null
// when the cache has taken ownership of its block.
void complete(pending_call*& call, u32 result) {
    const u32 revision = acl_cache_revision();
    deliver_result(result, *call);
    if (result == 0 && is_caching() && take_into_cache(call, revision)) {
        call = nullptr;
    }
}

// The saved data was written by another thread: fetch it while earlier calls are delivered.
void prefetch_for_cache(const pending_call* call) {
    if (call != nullptr && is_caching()) {
        prefetch_for_writing(call->data(), tuning::cached_prefetch_bytes);
    }
}

}  // namespace

void result_run::add(const u8* value) {
    call_ids_[count_] = load<u32>(value, 0);
    results_[count_] = load<u32>(value, 4);
    if (++count_ == longest) {
        deliver();
    }
}

void result_run::deliver() {
    if (count_ == 0) {
        return;
    }
    std::array<pending_call*, longest> done{};
    calls_in_hand calls({call_ids_.data(), count_});
    for (std::size_t i = 0; i < count_; ++i) {
        prefetch_for_cache(calls.peek(i + tuning::cached_calls_ahead));
        done[i] = is_current(generation_) ? calls.take(i) : nullptr;
        if (done[i] == nullptr) {
            SCC_LOG_FROM(function, "no such call id:%d in scc lib", call_ids_[i]);
        } else {
            complete(done[i], results_[i]);
        }
    }
    release_pending_calls({done.data(), count_});
    count_ = 0;
}

}  // namespace scc

extern "C" void _scc_lib_call_ret_proc(const void* value) {
    result_run results(current_generation());
    results.add(static_cast<const u8*>(value));
    results.deliver();
}
