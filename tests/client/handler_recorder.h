// Handlers that record their arguments: one for each of the 70 positions, generated from the handler's own
// type, so that a wrong position, width, order or pointer gives a different text.
//
// An argument is recorded as its width in bits and its value ("32:7", "8:255", "i32:5"), a pointer as the
// bytes that it points to ("@0102..."): as many as its record has, or 8 for an untyped pointer.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "client/handlers.h"
#include "support/events.h"
#include "support/wire_bytes.h"

namespace test {

struct handler_call {
    int position = -1;
    std::vector<std::string> arguments;

    bool operator==(const handler_call&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const handler_call& call) {
    out << "position " << call.position;
    for (const std::string& argument : call.arguments) {
        out << ' ' << argument;
    }
    return out;
}

inline event_queue<handler_call>& handler_calls() {
    static auto* queue = new event_queue<handler_call>;
    return *queue;
}

inline std::string pointer_to(const bytes& target) {
    static const char* digits = "0123456789abcdef";
    std::string text = "@";
    for (const std::uint8_t byte : target) {
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

template <class Argument>
std::string describe_argument(Argument argument) {
    if constexpr (std::is_pointer_v<Argument>) {
        using target = std::remove_pointer_t<Argument>;
        constexpr std::size_t size = [] {
            if constexpr (std::is_void_v<target>) {
                return std::size_t{8};
            } else {
                return sizeof(target);
            }
        }();
        bytes copy(size);
        std::memcpy(copy.data(), static_cast<const void*>(argument), size);
        return pointer_to(copy);
    } else {
        const char* sign = std::is_signed_v<Argument> ? "i" : "";
        return sign + std::to_string(sizeof argument * 8) + ":" + std::to_string(argument);
    }
}

template <class Handler, int Position>
struct recording;

template <class Return, class... Arguments, int Position>
struct recording<Return (*)(Arguments...), Position> {
    static Return call(Arguments... arguments) {
        handler_calls().push({Position, {describe_argument(arguments)...}});
        return Return();
    }
};

template <auto Member, int Position>
void install_recording(scc_handlers& handlers) {
    using handler_type = std::remove_reference_t<decltype(handlers.*Member)>;
    const auto* table = reinterpret_cast<const std::uint8_t*>(&handlers);
    const auto* slot = reinterpret_cast<const std::uint8_t*>(&(handlers.*Member));
    ASSERT_EQ(slot - table, Position * 8);
    handlers.*Member = recording<handler_type, Position>::call;
}

// Every position has its recording handler.
inline scc_handlers recording_handlers() {
    using h = scc_handlers;
    scc_handlers all{};
    install_recording<&h::server_status, 0>(all);
    install_recording<&h::d1x_authen_method, 1>(all);
    install_recording<&h::d1x_author_mode, 2>(all);
    install_recording<&h::d1x_port_addr_num, 3>(all);
    install_recording<&h::d1x_port_open, 4>(all);
    install_recording<&h::d1x_pt_ctrl, 5>(all);
    install_recording<&h::d1x_cos, 6>(all);
    install_recording<&h::d1x_dscp, 7>(all);
    install_recording<&h::d1x_redirect, 8>(all);
    install_recording<&h::d1x_mac_move, 9>(all);
    install_recording<&h::d1x_addr_move, 10>(all);
    install_recording<&h::webauth, 11>(all);
    install_recording<&h::http_dport, 12>(all);
    install_recording<&h::dirchn_host, 13>(all);
    install_recording<&h::dirchn_server, 14>(all);
    install_recording<&h::dirchn_site, 15>(all);
    install_recording<&h::dirchn_arp, 16>(all);
    install_recording<&h::port_security, 17>(all);
    install_recording<&h::reserved_kind_17, 18>(all);
    install_recording<&h::global_ip_mac, 19>(all);
    install_recording<&h::ip_source_guard, 20>(all);
    install_recording<&h::bind_except_port, 21>(all);
    install_recording<&h::dhcp_trust_port, 22>(all);
    install_recording<&h::arpcheck, 23>(all);
    install_recording<&h::addr_learning, 24>(all);
    install_recording<&h::nac_esc, 25>(all);
    install_recording<&h::nac_esc_eport, 26>(all);
    install_recording<&h::nac_app, 27>(all);
    install_recording<&h::nac_user, 28>(all);
    install_recording<&h::ndsnp_default_bind, 29>(all);
    install_recording<&h::reserved_kind_29, 30>(all);
    install_recording<&h::nac_neighbour, 31>(all);
    install_recording<&h::acl_create, 32>(all);
    install_recording<&h::acl_delete, 33>(all);
    install_recording<&h::acl_add_ace, 34>(all);
    install_recording<&h::acl_delete_ace, 35>(all);
    install_recording<&h::acl_apply, 36>(all);
    install_recording<&h::acl_unapply, 37>(all);
    install_recording<&h::user_acl_apply, 38>(all);
    install_recording<&h::user_acl_unapply, 39>(all);
    install_recording<&h::user_acl_delete_vmsup, 40>(all);
    install_recording<&h::acl_resequence, 41>(all);
    install_recording<&h::filter_counter_reset, 42>(all);
    install_recording<&h::acl_counter_reset, 43>(all);
    install_recording<&h::ace_counter_reset, 44>(all);
    install_recording<&h::global_eport, 45>(all);
    install_recording<&h::svi_router_acl, 46>(all);
    install_recording<&h::direct_vlan_notify, 47>(all);
    install_recording<&h::noflow_offline, 48>(all);
    install_recording<&h::authmode, 49>(all);
    install_recording<&h::efacl_ctrl, 50>(all);
    install_recording<&h::dhcp_snooping, 51>(all);
    install_recording<&h::dhcp_snooping_second, 52>(all);
    install_recording<&h::nd_snooping, 53>(all);
    install_recording<&h::cpp, 54>(all);
    install_recording<&h::ace_counters, 55>(all);
    install_recording<&h::station_move, 56>(all);
    install_recording<&h::flow, 57>(all);
    install_recording<&h::arpcheck_trust, 58>(all);
    install_recording<&h::arp_entry, 59>(all);
    install_recording<&h::offline_detect_cfg, 60>(all);
    install_recording<&h::offline_detect_notify, 61>(all);
    install_recording<&h::direct_vlan, 62>(all);
    install_recording<&h::user_change, 63>(all);
    install_recording<&h::dirchn, 64>(all);
    install_recording<&h::port_violate_notify, 65>(all);
    install_recording<&h::user_roll, 66>(all);
    install_recording<&h::water_line, 67>(all);
    install_recording<&h::arp_dyn_entry, 68>(all);
    install_recording<&h::port_violate, 69>(all);
    return all;
}

// Makes these the process's handlers, as a registration does.
inline void use_handlers(const scc_handlers& handlers) {
    scc_reg_info info{};
    info.handlers = handlers;
    _scc_lib_handler_set(&info);
}

// Returns the calls so far, in order, and clears the list.
inline std::vector<handler_call> taken_calls() {
    std::vector<handler_call> calls;
    while (handler_calls().size() > 0) {
        calls.push_back(*handler_calls().wait());
    }
    return calls;
}

}  // namespace test
