#include "support/application.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include "support/fail.h"
#include "support/promises.h"
#include "tests/support/result_handlers.h"

namespace scc::fuzz {
namespace {

application_events g_events;

// ---- arguments -------------------------------------------------------------------------------------

template <class Record>
Record pattern(u8 seed) {
    Record record;
    std::memset(&record, seed, sizeof record);
    return record;
}

// Few enough ACLs that they recur.
template <>
scc_acl_key pattern<scc_acl_key>(u8 seed) {
    return {seed & 1u, 1 + (seed >> 1) % 2u, 1 + (seed >> 2) % 3u, seed};
}

template <>
scc_config_record pattern<scc_config_record>(u8 seed) {
    scc_config_record record;
    std::memset(&record, seed, sizeof record);
    record.form = 9 + seed % 3u;
    return record;
}

template <>
scc_user_record pattern<scc_user_record>(u8 seed) {
    scc_user_record record;
    std::memset(&record, seed, sizeof record);
    record.entry_type = seed % 7u;
    record.operation = seed % 2 == 0 ? SCC_USER_OPERATION_ADD : SCC_USER_OPERATION_DELETE;
    record.flags = seed * 2u;
    return record;
}

template <>
scc_ace_record pattern<scc_ace_record>(u8 seed) {
    scc_ace_record record;
    std::memset(&record, seed, sizeof record);
    record.sn = seed % 16 == 15 ? 0x7FFFFFF0u + seed : seed / 4u % 24u;
    record.ace_id = seed % 3u;
    return record;
}

template <>
scc_acl_apply_record pattern<scc_acl_apply_record>(u8 seed) {
    scc_acl_apply_record record;
    std::memset(&record, seed, sizeof record);
    record.key = pattern<scc_acl_key>(seed);
    record.apply_type = seed % 4 == 0 ? 0 : 1 + seed % 58u;
    return record;
}

template <>
scc_user_acl_record pattern<scc_user_acl_record>(u8 seed) {
    scc_user_acl_record record;
    std::memset(&record, seed, sizeof record);
    record.key = pattern<scc_acl_key>(seed);
    return record;
}

constexpr u32 largest_block = 10200;

u32 block_bytes(u8 seed) {
    return 1 + seed * 40u;
}

const u8* block(u8 seed) {
    static std::array<u8, largest_block + 1> bytes;
    std::memset(bytes.data(), seed, block_bytes(seed));
    return bytes.data();
}

// ---- handlers --------------------------------------------------------------------------------------

template <class T>
void compare(int seed, const T* given) {
    read_all(given, sizeof(T));
    if (seed < 0) {
        return;
    }
    T expected = pattern<T>(static_cast<u8>(seed));
    if constexpr (std::is_same_v<T, scc_acl_apply_record>) {
        // 0 stands for the key's type, even in the saved data.
        expected.apply_type = expected.apply_type == 0 ? expected.key.app_type : expected.apply_type;
    }
    FUZZ_EXPECT(std::memcmp(given, &expected, sizeof expected) == 0);
}

template <class T>
requires std::is_integral_v<T>
void compare(int /*seed*/, T /*given*/) {}

template <std::size_t Position, class... Arguments>
auto result_handler(void (*)(u32, u32, Arguments...)) {
    return +[](u32 result, u32 call_id, Arguments... arguments) {
        const int seed = g_events.result != nullptr ? g_events.result(Position, result, call_id) : -1;
        (compare(seed, arguments), ...);
    };
}

template <std::size_t Position>
void notified() {
    if (g_events.notified != nullptr) {
        g_events.notified(Position);
    }
}

#define POSITION(member) (offsetof(scc_handlers, member) / sizeof(void*))

constexpr std::size_t efacl_position = POSITION(efacl_ctrl);

void set_result_handlers(scc_handlers& to) {
#define RESULT(member) to.member = result_handler<POSITION(member)>(to.member);
    SCC_RESULT_HANDLERS(RESULT)
#undef RESULT
    to.efacl_ctrl = [](u32 result, u32 call_id, const void* data, i32 data_bytes) {
        const int seed = g_events.result != nullptr ? g_events.result(efacl_position, result, call_id) : -1;
        FUZZ_EXPECT(data_bytes > 0);
        read_all(data, static_cast<std::size_t>(data_bytes));
        if (seed >= 0) {
            const auto given = static_cast<u8>(seed);
            FUZZ_EXPECT(static_cast<u32>(data_bytes) == block_bytes(given));
            FUZZ_EXPECT(std::memcmp(data, block(given), block_bytes(given)) == 0);
        }
    };
}

void set_notification_handlers(scc_handlers& to) {
    to.server_status = [](u32 status) {
        FUZZ_EXPECT(status <= 1);
        if (g_events.status != nullptr) {
            g_events.status(status);
        }
    };
    to.d1x_addr_move = [](u32 count, const scc_address_move* moves) {
        read_all(moves, std::size_t{count} * sizeof *moves);
        notified<POSITION(d1x_addr_move)>();
    };
    to.direct_vlan_notify = [](const scc_vlan_record* vlans) {
        read_all(vlans, sizeof *vlans);
        notified<POSITION(direct_vlan_notify)>();
    };
    to.noflow_offline = [](const scc_flow_user* user, u64, u64, const void* extra, u32 extra_bytes) {
        read_all(user, sizeof *user);
        read_all(extra, extra_bytes);
        notified<POSITION(noflow_offline)>();
    };
    to.authmode = [](u32) { notified<POSITION(authmode)>(); };
    to.ace_counters = [](const scc_acl_key* key, u32 count, const scc_ace_counter* counters) {
        read_all(key, sizeof *key);
        read_all(counters, std::size_t{count} * sizeof *counters);
        notified<POSITION(ace_counters)>();
    };
    to.station_move = [](u8) { notified<POSITION(station_move)>(); };
    to.flow = [](const scc_flow_user* user, u64, u64) {
        read_all(user, sizeof *user);
        notified<POSITION(flow)>();
    };
    to.offline_detect_notify = [](u32, u8, u32, u32) { notified<POSITION(offline_detect_notify)>(); };
    to.user_change = [](u8 add, const void* user, const void* detail) {
        // The record's bytes from 24 and from 80; nothing says how many follow the second.
        read_all(user, 56);
        FUZZ_EXPECT(detail != nullptr);
        notified<POSITION(user_change)>();
        return add % 3 == 0 ? -1 : 0;
    };
    to.dirchn = [](u8 add, u32) {
        FUZZ_EXPECT(add <= 1);
        notified<POSITION(dirchn)>();
    };
    to.port_violate_notify = [](u8, const scc_port_violation* violation) {
        read_all(violation, sizeof *violation);
        notified<POSITION(port_violate_notify)>();
    };
    to.user_roll = [](const scc_user_roll* roll) {
        read_all(roll, sizeof *roll);
        notified<POSITION(user_roll)>();
    };
    to.water_line = [](u8) {
        broken_promise(__FILE__, __LINE__, "the water line's handler is never called");
    };
}

// ---- requests --------------------------------------------------------------------------------------

struct request {
    u32 position;
    u32 (*make)(u8 seed, u32* call_id);
};

#define RECORD(member, call, type)                   \
    request {                                        \
        POSITION(member), [](u8 seed, u32* id) {     \
            const auto record = pattern<type>(seed); \
            return call(&record, id);                \
        }                                            \
    }
#define CONFIG(member, call) RECORD(member, call, scc_config_record)
#define USER(member, call) RECORD(member, call, scc_user_record)
#define SCALAR(member, ...)                                            \
    request {                                                          \
        POSITION(member), [](u8 seed, u32* id) { return __VA_ARGS__; } \
    }
#define KEYED(member, ...)                         \
    request {                                      \
        POSITION(member), [](u8 seed, u32* id) {   \
            auto key = pattern<scc_acl_key>(seed); \
            return __VA_ARGS__;                    \
        }                                          \
    }
#define ACE(member, call)                                   \
    request {                                               \
        POSITION(member), [](u8 seed, u32* id) {            \
            const auto key = pattern<scc_acl_key>(seed);    \
            const auto ace = pattern<scc_ace_record>(seed); \
            return call(&key, &ace, id);                    \
        }                                                   \
    }
#define APPLY(member, call)                                    \
    request {                                                  \
        POSITION(member), [](u8 seed, u32* id) {               \
            auto record = pattern<scc_acl_apply_record>(seed); \
            return call(&record, id);                          \
        }                                                      \
    }

// The ACL requests are first and repeated, since they build on one another.
const request g_requests[] = {
    KEYED(acl_create, scc_acl_create(&key, id)),
    ACE(acl_add_ace, scc_acl_add_ace),
    KEYED(acl_resequence,
          scc_acl_reseqence(&key, 1 + seed % 9u, seed % 8 == 7 ? 0x70000000u : 1 + seed % 5u, id)),
    ACE(acl_delete_ace, scc_acl_delete_ace),
    KEYED(acl_delete, scc_acl_delete(&key, id)),
    APPLY(acl_apply, scc_acl_apply),
    APPLY(acl_unapply, scc_acl_unapply),
    request{POSITION(efacl_ctrl),
            [](u8 seed, u32* id) { return scc_efacl_ctrl(block(seed), block_bytes(seed), id); }},
    SCALAR(addr_learning, scc_addr_learning(seed, seed, id)),
    CONFIG(d1x_authen_method, scc_d1x_authen_method),
    CONFIG(d1x_author_mode, scc_d1x_author_mode_set),
    CONFIG(d1x_port_addr_num, scc_d1x_port_addr_num),
    CONFIG(d1x_port_open, scc_d1x_port_open),
    CONFIG(d1x_pt_ctrl, scc_d1x_set_pt_ctrl),
    CONFIG(d1x_cos, scc_d1x_set_cos),
    CONFIG(d1x_dscp, scc_d1x_set_dscp),
    SCALAR(d1x_redirect, scc_dot1x_redirect_enable(seed, id)),
    SCALAR(d1x_mac_move, scc_d1x_mac_move(seed, id)),
    CONFIG(webauth, scc_webauth_set),
    SCALAR(http_dport, scc_http_dport_set(seed, seed, id)),
    SCALAR(dirchn_host, scc_dirchn_host_set(seed, seed, seed, seed, seed, id)),
    SCALAR(dirchn_server, scc_dirchn_server_set(seed, seed, id)),
    SCALAR(dirchn_site, scc_dirchn_site_set(seed, seed, seed, seed, id)),
    SCALAR(dirchn_arp, scc_dirchn_arp_set(seed, seed, seed, id)),
    CONFIG(port_security, scc_sp_port_secuity),
    CONFIG(port_violate, scc_sp_port_violate),
    CONFIG(global_ip_mac, scc_global_ip_mac),
    CONFIG(ip_source_guard, scc_ip_source_guard_status),
    CONFIG(bind_except_port, scc_bind_except_port),
    CONFIG(dhcp_trust_port, scc_dhcp_trust_port),
    CONFIG(dhcp_snooping, scc_dhcp_snooping_set),
    CONFIG(nd_snooping, scc_nd_snooping_set),
    CONFIG(arpcheck, scc_arpcheck),
    CONFIG(arpcheck_trust, scc_arpcheck_trust),
    KEYED(nac_esc, scc_nac_esc_set(seed, &key, seed, id)),
    CONFIG(nac_esc_eport, scc_nac_esc_eport_set),
    CONFIG(nac_app, scc_nac_app_set),
    USER(nac_user, scc_nac_user_set),
    USER(arp_entry, scc_arp_entry_set),
    USER(arp_dyn_entry, scc_arp_dyn_entry_set),
    SCALAR(ndsnp_default_bind, scc_ndsnp_default_bind_set(seed, seed, seed, id)),
    request{POSITION(nac_neighbour),
            [](u8 seed, u32* id) {
                const auto record = pattern<scc_neighbour_record>(seed);
                return scc_nac_nbr_set(&record, seed, id);
            }},
    SCALAR(cpp, scc_cpp_set(seed % 4 == 3 ? 1 : 0, seed, id)),
    SCALAR(offline_detect_cfg, scc_offline_detect_cfg(seed, seed, seed, id)),
    request{POSITION(direct_vlan),
            [](u8 seed, u32* id) {
                const auto vlans = pattern<scc_vlan_record>(seed);
                return scc_direct_vlan_set(seed, &vlans, id);
            }},
    SCALAR(global_eport, scc_acl_global_eport_set(seed, seed, id)),
    SCALAR(svi_router_acl, scc_svi_router_acl_set(seed, id)),
    RECORD(user_acl_apply, scc_user_acl_apply, scc_user_acl_record),
    RECORD(user_acl_unapply, scc_user_acl_unapply, scc_user_acl_record),
    KEYED(user_acl_delete_vmsup, scc_user_acl_delete_vmsup(&key, id)),
    KEYED(filter_counter_reset, scc_acl_reset_filter_counter(&key, id)),
    KEYED(acl_counter_reset, scc_acl_reset_counter(&key, id)),
    KEYED(ace_counter_reset, scc_ace_reset_counter(&key, seed, id)),
};

void read_cached_aces(u8 seed) {
    const auto key = pattern<scc_acl_key>(seed);
    scc_list_head aces;
    if (scc_acl_get_ace(&key, &aces) != 0) {
        return;
    }
    const scc_list_head* before = &aces;
    for (scc_list_head* link = aces.next; link != &aces;) {
        FUZZ_EXPECT(link->prev == before);
        before = link;
        link = link->next;
    }
    FUZZ_EXPECT(aces.prev == before);
    while (aces.next != &aces) {
        scc_list_head* link = aces.next;
        aces.next = link->next;
        std::free(link);
    }
}

void read_one_cached_ace(u8 seed) {
    const auto key = pattern<scc_acl_key>(seed);
    scc_ace_record ace{};
    const u32 sn = pattern<scc_ace_record>(static_cast<u8>(seed * 4)).sn;
    if (scc_acl_get_ace_by_sn(&key, sn, &ace) == 0) {
        FUZZ_EXPECT(ace.sn == sn);
    }
}

// ---- queries ---------------------------------------------------------------------------------------

struct query {
    u16 reply_type;
    u32 (*make)(u8 seed);
};

constexpr u32 untouched = 0xA5A5A5A5;

template <class Counter, class Call>
u32 counted(Call call, bool cleared) {
    auto counter = static_cast<Counter>(untouched);
    const u32 error = call(&counter);
    if (error != 0) {
        FUZZ_EXPECT(counter == (cleared ? 0 : static_cast<Counter>(untouched)));
    }
    return error;
}

const query g_queries[] = {
    {413,
     [](u8 seed) {
         const auto mac = pattern<std::array<u8, 6>>(seed);
         return counted<u32>([&](u32* ip) { return scc_mac_query(mac.data(), ip); }, false);
     }},
    {415,
     [](u8 seed) {
         const auto record = pattern<scc_config_record>(seed);
         u32 call_id = 0;
         return scc_sp_port_addr_num(&record, seed % 2 == 0 ? &call_id : nullptr);
     }},
    {401,
     [](u8 seed) {
         auto record = pattern<scc_user_record>(seed);
         record.operation = SCC_USER_OPERATION_GET;
         return scc_nac_user_get(&record);
     }},
    {414,
     [](u8 seed) {
         const auto record = pattern<scc_config_record>(seed);
         u32 call_id = 0;
         return scc_nac_span_dport_set(&record, &call_id);
     }},
    {405,
     [](u8) {
         u8 enabled = 7;
         const u32 error = scc_is_arp_check_enabled(&enabled);
         FUZZ_EXPECT(error == 0 ? enabled <= 1 : enabled == 7);
         return error;
     }},
    {411,
     [](u8 seed) {
         return counted<u32>([&](u32* count) { return scc_arp_check_user_count_get(seed, count); }, false);
     }},
    {410,
     [](u8 seed) {
         const int capacity = seed % 8 - 1;
         const std::size_t room = capacity > 0 ? static_cast<std::size_t>(capacity) : 1;
         auto* entries = static_cast<scc_arp_check_entry*>(std::malloc(room * sizeof(scc_arp_check_entry)));
         int count = capacity;
         const u32 error = scc_arp_check_user_data_get(seed, entries, &count);
         FUZZ_EXPECT(count <= capacity);
         if (error == 0 && count > 0) {
             read_all(entries, static_cast<std::size_t>(count) * sizeof *entries);
         }
         std::free(entries);
         return error;
     }},
    {136,
     [](u8 seed) {
         const auto record = pattern<scc_user_acl_record>(seed);
         u8 out[16] = {};
         return scc_user_acl_change_vmsup(&record, out);
     }},
    {409,
     [](u8 seed) {
         const auto key = pattern<scc_acl_key>(seed);
         return counted<u64>([&](u64* counter) { return scc_acl_get_filter_counter(&key, counter); }, true);
     }},
    {408,
     [](u8 seed) {
         const auto key = pattern<scc_acl_key>(seed);
         return counted<u64>([&](u64* counter) { return scc_acl_get_counter(&key, counter); }, false);
     }},
    {407,
     [](u8 seed) {
         const auto key = pattern<scc_acl_key>(seed);
         return counted<u64>([&](u64* counter) { return scc_ace_get_counter(&key, seed, counter); }, false);
     }},
};

constexpr planned_type g_application_items[] = {
    {401, 8},  {110, 24},  {127, 80}, {206, 52}, {209, 16}, {210, 5},  {211, 80},
    {212, 88}, {213, 520}, {214, 8},  {216, 12}, {217, 61}, {219, 24}, {220, 4},
    {318, 0},  {319, 4},   {406, 8},  {407, 40}, {401, 8},  {206, 36},
};

constexpr planned_type g_service_items[] = {
    {131, 140}, {132, 940}, {133, 244}, {138, 28}, {140, 36},  {141, 36}, {142, 12}, {143, 8},  {148, 16},
    {149, 12},  {150, 20},  {151, 96},  {152, 96}, {153, 12},  {154, 16}, {155, 4},  {158, 24}, {163, 12},
    {201, 9},   {205, 4},   {206, 52},  {209, 16}, {213, 520}, {214, 8},  {312, 36}, {313, 36}, {318, 0},
};

}  // namespace

void set_application_events(const application_events& events) {
    g_events = events;
}

scc_handlers reading_handlers() {
    scc_handlers handlers{};
    set_result_handlers(handlers);
    set_notification_handlers(handlers);
    return handlers;
}

u32 request_kinds() {
    return std::size(g_requests);
}

u32 make_request(u32 which, u8 seed, u32* call_id, u32& position) {
    const request& row = g_requests[which % std::size(g_requests)];
    position = row.position;
    if (position == POSITION(dhcp_snooping) && pattern<scc_config_record>(seed).form == 10) {
        position = POSITION(dhcp_snooping_second);
    }
    return row.make(seed, call_id);
}

void make_other_call(u32 which, u8 seed) {
    auto key = pattern<scc_acl_key>(seed);
    switch (which % 8) {
        case 0:
            read_cached_aces(seed);
            break;
        case 1:
            read_one_cached_ace(seed);
            break;
        case 2:
            (void)scc_acl_cls_get(&key);
            break;
        case 3:
            (void)scc_data_recover(seed);
            break;
        case 4:
            (void)scc_test_cmd_set(seed);
            break;
        case 5:
            (void)scc_warterline_notify(seed);
            break;
        case 6: {
            u8 supported = 0;
            (void)scc_nac_user_counter_support(&supported);
            break;
        }
        default: {
            char names[128];
            const int size = seed % 128;
            scc_bind_user_name_get(seed, names, size);
            break;
        }
    }
}

u32 query_kinds() {
    return std::size(g_queries);
}

u32 make_query(u32 which, u8 seed) {
    return g_queries[which % std::size(g_queries)].make(seed);
}

u16 reply_type_of(u32 which) {
    return g_queries[which % std::size(g_queries)].reply_type;
}

std::span<const planned_type> application_items() {
    return g_application_items;
}

std::span<const planned_type> service_items() {
    return g_service_items;
}

}  // namespace scc::fuzz
