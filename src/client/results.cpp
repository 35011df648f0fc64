// Item 401: u32 call id at 0, u32 result at 4. Runs on the thread that receives, takes scc_call_data_lock
// only to find the call, and holds no lock while a handler runs.
#include "client/results.h"

#include <array>

#include "client/acl_cache.h"
#include "client/delivery.h"
#include "client/diagnostics.h"
#include "client/kinds.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "util/prefetch.h"

using namespace scc;

namespace scc {
namespace {

constexpr const char* function = "_scc_lib_call_ret_proc";

using deliver_fn = void (*)(u32 result, u32 call_id, const source& saved);

template <auto Member, class... Arguments>
void deliver(u32 result, u32 call_id, const source& saved) {
    using handler_type = handler_of<Member>;
    static_assert(signature<handler_type, u32, u32>::template same_count<Arguments...>);
    static_assert(signature<handler_type, u32, u32>::template matches<Arguments...>);
    const handler_type handler = load_handler(g_scc_client_cb.handlers.*Member);
    if (handler != nullptr && saved.length >= bytes_read<Arguments...>) {
        handler(result, call_id, Arguments::read(saved)...);
    }
}

constexpr u32 not_counted = stat_entries;

struct result_row {
    u32 kind;
    deliver_fn deliver;
    u32 statistics = not_counted;
};

using handlers = scc_handlers;

// clang-format off
constexpr std::array result_table = std::to_array<result_row>({
    { 1, deliver<&handlers::d1x_authen_method, whole>},
    { 2, deliver<&handlers::d1x_author_mode, whole>},
    { 3, deliver<&handlers::d1x_port_addr_num, whole>},
    { 4, deliver<&handlers::d1x_port_open, whole>},
    { 5, deliver<&handlers::d1x_pt_ctrl, whole>},
    { 6, deliver<&handlers::d1x_cos, whole>},
    { 7, deliver<&handlers::d1x_dscp, whole>},
    { 8, deliver<&handlers::d1x_redirect, u8_at<0>>},
    { 9, deliver<&handlers::d1x_mac_move, u8_at<0>>},
    {10, deliver<&handlers::webauth, whole>},
    {11, deliver<&handlers::http_dport, u16_at<0>, u8_at<2>>},
    {12, deliver<&handlers::dirchn_host, u32_at<0>, u32_at<4>, u8_at<8>, u32_at<9>, u8_at<13>>},
    {13, deliver<&handlers::dirchn_server, u32_at<0>, u8_at<4>>},
    {14, deliver<&handlers::dirchn_site, u32_at<0>, u32_at<4>, u8_at<8>, u8_at<9>>},
    {15, deliver<&handlers::dirchn_arp, u32_at<0>, u32_at<4>, u8_at<9>>},
    {16, deliver<&handlers::port_security, whole>},
    {17, deliver<&handlers::reserved_kind_17, whole>},
    {18, deliver<&handlers::global_ip_mac, whole>},
    {19, deliver<&handlers::ip_source_guard, whole>},
    {20, deliver<&handlers::bind_except_port, whole>},
    {21, deliver<&handlers::dhcp_trust_port, whole>},
    {22, deliver<&handlers::arpcheck, whole>},
    {23, deliver<&handlers::addr_learning, u32_at<0>, u8_at<4>>},
    {24, deliver<&handlers::nac_esc, u32_at<0>, pointer_at<4>, u8_at<20>>},
    {25, deliver<&handlers::nac_esc_eport, whole>},
    {26, deliver<&handlers::nac_app, whole>},
    {27, deliver<&handlers::nac_user, whole>},
    {28, deliver<&handlers::ndsnp_default_bind, u32_at<0>, u32_at<4>, u8_at<8>>},
    {29, deliver<&handlers::reserved_kind_29, whole>},
    {30, deliver<&handlers::nac_neighbour, whole, u8_at<912>>},
    {31, deliver<&handlers::acl_create, whole>, stat_acl_create},
    {32, deliver<&handlers::acl_delete, whole>, stat_acl_delete},
    {33, deliver<&handlers::acl_add_ace, whole, pointer_at<16>>, stat_ace_add},
    {34, deliver<&handlers::acl_delete_ace, whole, pointer_at<16>>, stat_ace_delete},
    {35, deliver<&handlers::acl_apply, whole>, stat_acl_apply},
    {36, deliver<&handlers::acl_unapply, whole>, stat_acl_unapply},
    {37, deliver<&handlers::user_acl_apply, whole>},
    {38, deliver<&handlers::user_acl_unapply, whole>},
    {39, deliver<&handlers::user_acl_delete_vmsup, whole>},
    {40, deliver<&handlers::acl_resequence, whole, u32_at<16>, u32_at<20>>},
    {41, deliver<&handlers::filter_counter_reset, whole>},
    {42, deliver<&handlers::acl_counter_reset, whole>},
    {43, deliver<&handlers::ace_counter_reset, whole, u64_at<16>>},
    {44, deliver<&handlers::global_eport, u32_at<0>, u8_at<4>>},
    {45, deliver<&handlers::svi_router_acl, u8_at<0>>},
    {46, nullptr},
    {47, nullptr},
    {48, nullptr},
    {49, nullptr},
    {50, deliver<&handlers::efacl_ctrl, whole, length_of_data>},
    {51, deliver<&handlers::dhcp_snooping, whole>},
    {52, deliver<&handlers::dhcp_snooping_second, whole>},
    {53, deliver<&handlers::nd_snooping, whole>},
    {54, deliver<&handlers::cpp, u32_at<0>, u8_at<4>>},
    {55, deliver<&handlers::arpcheck_trust, whole>},
    {56, deliver<&handlers::arp_entry, whole>},
    {57, deliver<&handlers::offline_detect_cfg, u8_at<4>, u32_at<8>, u32_at<12>>},
    {58, deliver<&handlers::direct_vlan, u8_at<4>, pointer_at<8>>},
    {59, deliver<&handlers::arp_dyn_entry, whole>},
    {60, deliver<&handlers::port_violate, whole>},
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

// NAC users are counted by the saved operation: 1 added, 3 deleted, anything else not at all.
u32 statistics_of_user(const source& saved) {
    constexpr std::size_t operation_offset = offsetof(scc_user_record, operation);
    if (saved.length < operation_offset + sizeof(u32)) {
        return not_counted;
    }
    switch (load<u32>(saved.bytes, operation_offset)) {
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
    const source saved{call.data(), static_cast<u32>(call.data_bytes)};
    const u32 statistics = call.kind == kind::nac_user ? statistics_of_user(saved) : row.statistics;
    if (statistics != not_counted) {
        count_callback(statistics, result == 0);
    }
    row.deliver(result, call.call_id, saved);
}

bool is_caching() {
    return g_scc_client_cb.option.load(relaxed) != 0;
}

// The handler first, then the cache, which may keep the call's block: then it is no longer the caller's.
// When the data was dropped while the handler ran, the confirmed change is not the cache's any more.
void complete(pending_call*& call, u32 result) {
    const u32 revision = acl_cache_revision();
    deliver_result(result, *call);
    if (result == 0 && is_caching() && take_into_cache(call, revision)) {
        call = nullptr;
    }
}

// What the cache reads was written by another thread; it is fetched while the calls before it are delivered.
void prefetch_for_cache(const pending_call* call) {
    constexpr std::size_t key_and_numbers = 320;
    if (call != nullptr && is_caching()) {
        prefetch_for_writing(call->data(), key_and_numbers);
    }
}

}  // namespace

void result_run::add(const u8* value) {
    if (count_ == 0) {
        generation_ = current_generation();
    }
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
        prefetch_for_cache(calls.peek(i + 2));
        // Call ids start again with a registration: an ended one's would find another's calls.
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
    result_run run;
    run.add(static_cast<const u8*>(value));
    run.deliver();
}
