// The configuration requests of applications, each a row and its arguments. Any thread.
#include "api/request.h"

using namespace scc;

static_assert(sizeof(scc_config_record) == record::config);
static_assert(offsetof(scc_config_record, form) == 16);
static_assert(sizeof(scc_neighbour_record) == record::neighbour);
static_assert(sizeof(scc_vlan_record) == record::direct_vlan);

// clang-format off
#define SCC_RECORD_REQUEST(function, name)                                             \
    uint32_t function(const struct scc_config_record* record, uint32_t* call_id_out)   \
    {                                                                                  \
        return record_request({msg::name, kind::name}, record, call_id_out);           \
    }

extern "C" {

SCC_RECORD_REQUEST(scc_d1x_authen_method,      d1x_authen_method)
SCC_RECORD_REQUEST(scc_d1x_author_mode_set,    d1x_author_mode)
SCC_RECORD_REQUEST(scc_d1x_port_addr_num,      d1x_port_addr_num)
SCC_RECORD_REQUEST(scc_d1x_port_open,          d1x_port_open)
SCC_RECORD_REQUEST(scc_d1x_set_pt_ctrl,        d1x_pt_ctrl)
SCC_RECORD_REQUEST(scc_d1x_set_cos,            d1x_cos)
SCC_RECORD_REQUEST(scc_d1x_set_dscp,           d1x_dscp)
SCC_RECORD_REQUEST(scc_webauth_set,            webauth)
SCC_RECORD_REQUEST(scc_sp_port_secuity,        port_security)
SCC_RECORD_REQUEST(scc_sp_port_violate,        port_violate)
SCC_RECORD_REQUEST(scc_global_ip_mac,          global_ip_mac)
SCC_RECORD_REQUEST(scc_ip_source_guard_status, ip_source_guard)
SCC_RECORD_REQUEST(scc_bind_except_port,       bind_except_port)
SCC_RECORD_REQUEST(scc_dhcp_trust_port,        dhcp_trust_port)
SCC_RECORD_REQUEST(scc_nd_snooping_set,        nd_snooping)
SCC_RECORD_REQUEST(scc_arpcheck,               arpcheck)
SCC_RECORD_REQUEST(scc_arpcheck_trust,         arpcheck_trust)
SCC_RECORD_REQUEST(scc_nac_esc_eport_set,      nac_esc_eport)
SCC_RECORD_REQUEST(scc_nac_app_set,            nac_app)
// clang-format on

uint32_t scc_dot1x_redirect_enable(int value, uint32_t* call_id_out) {
    return scalar_request({msg::d1x_redirect, kind::d1x_redirect}, call_id_out, low_byte{value});
}

uint32_t scc_d1x_mac_move(int value, uint32_t* call_id_out) {
    return scalar_request({msg::d1x_mac_move, kind::d1x_mac_move}, call_id_out, low_byte{value});
}

uint32_t scc_http_dport_set(uint16_t port, uint8_t flag, uint32_t* call_id_out) {
    return scalar_request({msg::http_dport, kind::http_dport}, call_id_out, port, flag);
}

uint32_t scc_dirchn_host_set(uint32_t first, uint32_t second, uint8_t third, uint32_t fourth, uint8_t fifth,
                             uint32_t* call_id_out) {
    return scalar_request({msg::dirchn_host, kind::dirchn_host}, call_id_out, first, second, third, fourth,
                          fifth);
}

uint32_t scc_dirchn_server_set(uint32_t first, uint8_t second, uint32_t* call_id_out) {
    return scalar_request({msg::dirchn_server, kind::dirchn_server}, call_id_out, first, second);
}

uint32_t scc_dirchn_site_set(uint32_t first, uint32_t second, uint8_t third, uint8_t fourth,
                             uint32_t* call_id_out) {
    return scalar_request({msg::dirchn_site, kind::dirchn_site}, call_id_out, first, second, third, fourth);
}

// The daemon expects a constant 1 before the last argument.
uint32_t scc_dirchn_arp_set(uint32_t first, uint32_t second, uint8_t third, uint32_t* call_id_out) {
    return scalar_request({msg::dirchn_arp, kind::dirchn_arp}, call_id_out, first, second, u8{1}, third);
}

uint32_t scc_addr_learning(uint32_t ifx, uint8_t enable, uint32_t* call_id_out) {
    return scalar_request({msg::addr_learning, kind::addr_learning}, call_id_out, ifx, enable);
}

uint32_t scc_nac_esc_set(uint32_t value, const struct scc_acl_key* key, uint8_t flag, uint32_t* call_id_out) {
    if (const u32 error = _scc_lib_acl_info_check(key); error != result::ok) {
        return error;
    }
    return scalar_request({msg::nac_esc, kind::nac_esc}, call_id_out, value, *key, flag);
}

uint32_t scc_ndsnp_default_bind_set(uint32_t first, uint32_t second, uint8_t third, uint32_t* call_id_out) {
    return scalar_request({msg::ndsnp_default_bind, kind::ndsnp_default_bind}, call_id_out, first, second,
                          third);
}

uint32_t scc_acl_global_eport_set(uint32_t ifx, uint8_t value, uint32_t* call_id_out) {
    if (ifx == 0 || ifx > limits::ifx_max) {
        SCC_LOG("scclib param invalid. ifx invalid");
        return result::invalid;
    }
    return scalar_request({msg::global_eport, kind::global_eport}, call_id_out, ifx, value, unset_slot{});
}

uint32_t scc_svi_router_acl_set(uint8_t value, uint32_t* call_id_out) {
    return scalar_request({msg::svi_router_acl, kind::svi_router_acl}, call_id_out, value);
}

// The payload and the saved data have the two arguments in opposite orders.
uint32_t scc_cpp_set(int type, uint8_t enable, uint32_t* call_id_out) {
    if (type != 0) {
        return result::invalid;
    }
    request call({msg::cpp, kind::cpp}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    std::array<u8, 5> saved{};
    store<i32>(saved.data(), 0, type);
    saved[4] = enable;
    payload<12> sent(call.call_id());
    sent.put(4, enable).put(8, type);
    return call.finish({saved}, {sent.bytes});
}

uint32_t scc_nac_nbr_set(const struct scc_neighbour_record* record, uint8_t flag, uint32_t* call_id_out) {
    if (record == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    request call({msg::nac_neighbour, kind::nac_neighbour}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    std::array<u8, record::neighbour + 1> saved{};
    store(saved.data(), 0, *record);
    saved[record::neighbour] = flag;
    payload<928> sent(call.call_id());
    sent.put(8, *record).put(8 + record::neighbour, flag);
    return call.finish({saved}, {sent.bytes});
}

// The saved data are the payload itself, call id included.
uint32_t scc_offline_detect_cfg(int open, uint32_t interval, uint32_t threshold, uint32_t* call_id_out) {
    request call({msg::offline_detect_cfg, kind::offline_detect_cfg}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<16> sent(call.call_id());
    sent.put(4, open).put(8, interval).put(12, threshold);
    return call.finish({sent.bytes}, {sent.bytes});
}

uint32_t scc_direct_vlan_set(int value, const struct scc_vlan_record* vlans, uint32_t* call_id_out) {
    if (vlans == nullptr) {
        return result::invalid;
    }
    request call({msg::direct_vlan, kind::direct_vlan}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<8 + record::direct_vlan> sent(call.call_id());
    sent.put(4, value).put(8, *vlans);
    return call.finish({sent.bytes}, {sent.bytes});
}

// The form is checked after the state, and a wrong one uses up a call id: deliberate.
uint32_t scc_dhcp_snooping_set(const struct scc_config_record* record, uint32_t* call_id_out) {
    constexpr u32 first_form = 9;
    constexpr u32 second_form = 10;
    if (record == nullptr) {
        SCC_LOG("scclib param invalid.");
        return result::invalid;
    }
    request call({msg::dhcp_snooping, kind::dhcp_snooping}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    if (record->form != first_form && record->form != second_form) {
        return result::invalid;
    }
    if (record->form == second_form) {
        call.set_row({msg::dhcp_snooping_second, kind::dhcp_snooping_second});
    }
    const record_head head(call.call_id());
    return call.finish({bytes_of(*record)}, {head.bytes, bytes_of(*record)});
}

uint32_t scc_efacl_ctrl(const void* data, uint32_t data_bytes, uint32_t* call_id_out) {
    if (data == nullptr || static_cast<i32>(data_bytes) <= 0) {
        SCC_LOG("scclib param invalid. data:%p, len:%d", data, data_bytes);
        return result::invalid;
    }
    request call({msg::efacl_ctrl, kind::efacl_ctrl}, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    payload<8> head(call.call_id());
    head.put(4, data_bytes);
    const std::span bytes(static_cast<const u8*>(data), data_bytes);
    return call.finish({bytes}, {head.bytes, bytes});
}
}
