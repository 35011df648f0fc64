// Every result handler of an application; each reports its position in the handler table and the bytes of its
// arguments after result and call id.
#pragma once

#include <tuple>
#include <type_traits>

#include "scclib.h"
#include "support/events.h"
#include "support/wire_bytes.h"

namespace test {

struct recorded_result {
    std::size_t position = 0;
    std::uint32_t result = 0;
    std::uint32_t call_id = 0;
    bytes arguments;  // integers in their own widths, records whole
};

inline event_queue<recorded_result>& results() {
    static auto* queue = new event_queue<recorded_result>;
    return *queue;
}

// Each handler is one pointer of the table.
template <auto Member>
std::size_t position_of() {
    static const scc_handlers table{};
    const auto* start = reinterpret_cast<const char*>(&table);
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&(table.*Member)) - start) / sizeof(void*);
}

template <class T>
void append_argument(wire& out, T argument) {
    if constexpr (std::is_pointer_v<T>) {
        out.raw(argument, sizeof *argument);
    } else {
        out.raw(&argument, sizeof argument);
    }
}

template <auto Member, class Handler>
struct recorder;

template <auto Member, class... Arguments>
struct recorder<Member, void (*)(std::uint32_t, std::uint32_t, Arguments...)> {
    static void call(std::uint32_t result, std::uint32_t call_id, Arguments... arguments) {
        wire out;
        (append_argument(out, arguments), ...);
        results().push({position_of<Member>(), result, call_id, out});
    }
};

// The control block of scc_efacl_ctrl arrives as a pointer and a length.
template <auto Member>
struct recorder<Member, void (*)(std::uint32_t, std::uint32_t, const void*, std::int32_t)> {
    static void call(std::uint32_t result, std::uint32_t call_id, const void* data, std::int32_t data_bytes) {
        results().push({position_of<Member>(), result, call_id,
                        wire()
                            .raw(data, static_cast<std::size_t>(data_bytes))
                            .u32(static_cast<std::uint32_t>(data_bytes))});
    }
};

template <auto... Members>
void install_recorders(scc_handlers& handlers) {
    ((handlers.*Members = recorder<Members, std::remove_reference_t<decltype(handlers.*Members)>>::call),
     ...);
}

inline void record_all_results(scc_handlers& handlers) {
    using H = scc_handlers;
    install_recorders<&H::d1x_authen_method, &H::d1x_author_mode, &H::d1x_port_addr_num, &H::d1x_port_open,
                      &H::d1x_pt_ctrl, &H::d1x_cos, &H::d1x_dscp, &H::d1x_redirect, &H::d1x_mac_move,
                      &H::webauth, &H::http_dport, &H::dirchn_host, &H::dirchn_server, &H::dirchn_site,
                      &H::dirchn_arp, &H::port_security, &H::reserved_kind_17, &H::global_ip_mac,
                      &H::ip_source_guard, &H::bind_except_port, &H::dhcp_trust_port, &H::arpcheck,
                      &H::addr_learning, &H::nac_esc, &H::nac_esc_eport, &H::nac_app, &H::nac_user,
                      &H::ndsnp_default_bind, &H::reserved_kind_29, &H::nac_neighbour>(handlers);
    install_recorders<&H::acl_create, &H::acl_delete, &H::acl_add_ace, &H::acl_delete_ace, &H::acl_apply,
                      &H::acl_unapply, &H::user_acl_apply, &H::user_acl_unapply, &H::user_acl_delete_vmsup,
                      &H::acl_resequence, &H::filter_counter_reset, &H::acl_counter_reset,
                      &H::ace_counter_reset, &H::global_eport, &H::svi_router_acl, &H::efacl_ctrl,
                      &H::dhcp_snooping, &H::dhcp_snooping_second, &H::nd_snooping, &H::cpp,
                      &H::arpcheck_trust, &H::arp_entry, &H::offline_detect_cfg, &H::direct_vlan,
                      &H::arp_dyn_entry, &H::port_violate>(handlers);
}

}  // namespace test
