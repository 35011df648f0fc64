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
    { 1, deliver<&handlers::d1x_authen_method, whole_record>},
    { 2, deliver<&handlers::d1x_author_mode, whole_record>},
    { 3, deliver<&handlers::d1x_port_addr_num, whole_record>},
    { 4, deliver<&handlers::d1x_port_open, whole_record>},
    { 5, deliver<&handlers::d1x_pt_ctrl, whole_record>},
    { 6, deliver<&handlers::d1x_cos, whole_record>},
    { 7, deliver<&handlers::d1x_dscp, whole_record>},
    { 8, deliver<&handlers::d1x_redirect, u8_at<0>>},
    { 9, deliver<&handlers::d1x_mac_move, u8_at<0>>},
    {10, deliver<&handlers::webauth, whole_record>},
    {11, deliver<&handlers::http_dport, u16_at<0>, u8_at<2>>},
    {12, deliver<&handlers::dirchn_host, u32_at<0>, u32_at<4>, u8_at<8>, u32_at<9>, u8_at<13>>},
    {13, deliver<&handlers::dirchn_server, u32_at<0>, u8_at<4>>},
    {14, deliver<&handlers::dirchn_site, u32_at<0>, u32_at<4>, u8_at<8>, u8_at<9>>},
    {15, deliver<&handlers::dirchn_arp, u32_at<0>, u32_at<4>, u8_at<9>>},
    {16, deliver<&handlers::port_security, whole_record>},
    {17, deliver<&handlers::reserved_kind_17, whole_record>},
    {18, deliver<&handlers::global_ip_mac, whole_record>},
    {19, deliver<&handlers::ip_source_guard, whole_record>},
    {20, deliver<&handlers::bind_except_port, whole_record>},
    {21, deliver<&handlers::dhcp_trust_port, whole_record>},
    {22, deliver<&handlers::arpcheck, whole_record>},
    {23, deliver<&handlers::addr_learning, u32_at<0>, u8_at<4>>},
    {24, deliver<&handlers::nac_esc, u32_at<0>, pointer_at<4>, u8_at<20>>},
    {25, deliver<&handlers::nac_esc_eport, whole_record>},
    {26, deliver<&handlers::nac_app, whole_record>},
    {27, deliver<&handlers::nac_user, whole_record>},
    {28, deliver<&handlers::ndsnp_default_bind, u32_at<0>, u32_at<4>, u8_at<8>>},
    {29, deliver<&handlers::reserved_kind_29, whole_record>},
    {30, deliver<&handlers::nac_neighbour, whole_record, u8_at<912>>},
    {31, deliver<&handlers::acl_create, whole_record>, stat_acl_create},
    {32, deliver<&handlers::acl_delete, whole_record>, stat_acl_delete},
    {33, deliver<&handlers::acl_add_ace, whole_record, pointer_at<16>>, stat_ace_add},
    {34, deliver<&handlers::acl_delete_ace, whole_record, pointer_at<16>>, stat_ace_delete},
    {35, deliver<&handlers::acl_apply, whole_record>, stat_acl_apply},
    {36, deliver<&handlers::acl_unapply, whole_record>, stat_acl_unapply},
    {37, deliver<&handlers::user_acl_apply, whole_record>},
    {38, deliver<&handlers::user_acl_unapply, whole_record>},
    {39, deliver<&handlers::user_acl_delete_vmsup, whole_record>},
    {40, deliver<&handlers::acl_resequence, whole_record, u32_at<16>, u32_at<20>>},
    {41, deliver<&handlers::filter_counter_reset, whole_record>},
    {42, deliver<&handlers::acl_counter_reset, whole_record>},
    {43, deliver<&handlers::ace_counter_reset, whole_record, u64_at<16>>},
    {44, deliver<&handlers::global_eport, u32_at<0>, u8_at<4>>},
    {45, deliver<&handlers::svi_router_acl, u8_at<0>>},
    {46, nullptr}, {47, nullptr}, {48, nullptr}, {49, nullptr},
    {50, deliver<&handlers::efacl_ctrl, whole_record, length_of_data>},
    {51, deliver<&handlers::dhcp_snooping, whole_record>},
    {52, deliver<&handlers::dhcp_snooping_second, whole_record>},
    {53, deliver<&handlers::nd_snooping, whole_record>},
    {54, deliver<&handlers::cpp, u32_at<0>, u8_at<4>>},
    {55, deliver<&handlers::arpcheck_trust, whole_record>},
    {56, deliver<&handlers::arp_entry, whole_record>},
    {57, deliver<&handlers::offline_detect_cfg, u8_at<4>, u32_at<8>, u32_at<12>>},
    {58, deliver<&handlers::direct_vlan, u8_at<4>, pointer_at<8>>},
    {59, deliver<&handlers::arp_dyn_entry, whole_record>},
    {60, deliver<&handlers::port_violate, whole_record>},
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
        // Call ids restart with each registration: those of an ended one could match other calls.
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
    result_run results;
    results.add(static_cast<const u8*>(value));
    results.deliver();
}
