#include "model/requests.h"

#include <unistd.h>

namespace model {
namespace {

request_facts refused(u32 error) {
    request_facts facts;
    facts.early_error = error;
    return facts;
}

request_facts facts_of(u16 type, u32 kind, const bytes& after_call_id, const bytes& saved) {
    request_facts facts;
    facts.type = type;
    facts.kind = kind;
    facts.value = wire().u32(0).add(after_call_id);
    facts.saved = saved;
    return facts;
}

request_facts counted(request_facts facts, int statistics) {
    facts.statistics = statistics;
    return facts;
}

// The record is at offset 8 and is saved unchanged.
request_facts record_facts(u16 type, u32 kind, const bytes& record) {
    return facts_of(type, kind, wire().u32(0).add(record), record);
}

#define RECORD(call, type, kind)                                                        \
    {                                                                                   \
#call, [](u8 seed, u8 how, u32* id) {                                                 \
         const auto record = config_of(seed, how);                                         \
         return call(&record, id);                                                         \
     },                                                                                    \
     [](u8 seed, u8 how, u32) {                                                            \
         return record_facts(type, kind, test::record_bytes(config_of(seed, how)));        \
     } \
    }

// A user record is sent with its mask changed as its flags require, and saved as given.
request_facts user_facts(u16 type, u32 kind, u8 seed, u8 how, bool is_counted) {
    const scc_user_record record = user_of(seed, how);
    if (record.operation != 1 && record.operation != 3) {
        return refused(22);
    }
    request_facts facts = record_facts(type, kind, test::record_bytes(record));
    u8* const mask = facts.value.data() + 8 + 648;
    if ((record.flags & 0x4) != 0) {
        std::memset(mask, 0xFF, 16);
    } else if ((record.flags & 0x2) != 0 && (record.flags & 0x200) == 0 && record.entry_type != 5 &&
               record.entry_type != 1) {
        std::memset(mask, 0xFF, 4);
    }
    if (is_counted) {
        facts.statistics = record.operation == 1 ? 6 : 7;
    }
    return facts;
}

#define USER(call, type, kind, is_counted)                                                   \
    {                                                                                        \
#call, [](u8 seed, u8 how, u32* id) {                                                      \
         const auto record = user_of(seed, how);                                                \
         return call(&record, id);                                                              \
     },                                                                                         \
     [](u8 seed, u8 how, u32) { return user_facts(type, kind, seed, how, is_counted); } \
    }

// A request whose arguments begin with an ACL's key.
#define KEYED(call, arguments, facts)                                                  \
    {                                                                                  \
#call, [](u8 seed, [[maybe_unused]] u8 how, u32* id) {                               \
         const scc_acl_key key = as_record(key_of(seed));                                 \
         return call arguments;                                                           \
     },                                                                                   \
     [](u8 seed, [[maybe_unused]] u8 how, [[maybe_unused]] u32 app_id) -> request_facts { \
         const acl_key key = key_of(seed);                                                \
         if (!is_valid(key)) {                                                            \
             return refused(22);                                                          \
         }                                                                                \
         return facts;                                                                    \
     } \
    }

#define SCALAR(call, arguments, type, kind, sent, saved)                                                   \
    {                                                                                                      \
#call, [](u8 seed, [[maybe_unused]] u8 how,                                                        \
                  u32 * id) { return call arguments; },                                                    \
                                                     [](u8 seed, [[maybe_unused]] u8 how,                  \
                                                        u32) { return facts_of(type, kind, sent, saved); } \
    }

request_facts acl_facts(const acl_key& key, bool creates, u32 app_id) {
    wire value;
    value.add(as_bytes(key));
    if (creates) {
        // The process's name is empty here: there is no /proc to read it from.
        value.u32(static_cast<u32>(getpid())).u32(app_id).zeros(108).u32(1);
    } else {
        value.zeros(4 + 4 + 108).u32(0);
    }
    return counted(facts_of(131, creates ? 31 : 32, value, as_bytes(key)), creates ? 0 : 1);
}

request_facts ace_facts(const acl_key& key, u8 how, bool adds) {
    const bytes ace = test::record_bytes(ace_of(how));
    return counted(
        facts_of(132, adds ? 33 : 34, wire().add(as_bytes(key)).zeros(4).add(ace).u32(adds ? 1 : 0).zeros(4),
                 wire().add(as_bytes(key)).add(ace)),
        adds ? 2 : 3);
}

u32 start_of(u8 how) {
    constexpr std::array<u32, 6> starts{1, 10, 5, 0, 0x80000000, 0x7FFFFFF8};
    return starts[how % starts.size()];
}

u32 step_of(u8 how) {
    constexpr std::array<u32, 5> steps{10, 1, 5, 0, 0xFFFFFFFF};
    return steps[how / 8 % steps.size()];
}

bool is_positive(u32 number) {
    return number >= 1 && number <= 0x7FFFFFFF;
}

request_facts resequence_facts(const acl_key& key, u8 how) {
    if (!is_positive(start_of(how)) || !is_positive(step_of(how))) {
        return refused(22);
    }
    const bytes value = wire().add(as_bytes(key)).u32(start_of(how)).u32(step_of(how));
    return facts_of(138, 40, value, value);
}

request_facts apply_facts(u8 seed, u8 how, bool applies) {
    scc_acl_apply_record record = apply_of(seed, how);
    if (record.apply_type == 0) {
        record.apply_type = record.key.app_type;
    }
    if (!is_valid(key_of(seed)) || record.apply_type < 1 || record.apply_type > 58) {
        return refused(22);
    }
    const bytes saved = test::record_bytes(record);
    return counted(
        facts_of(133, applies ? 35 : 36, wire().u32(0).add(saved).u32(applies ? 1 : 0).zeros(4), saved),
        applies ? 4 : 5);
}

#define APPLY(call, applies)                                         \
    {                                                                \
#call, [](u8 seed, u8 how, u32* id) {                              \
         auto record = apply_of(seed, how);                             \
         return call(&record, id);                                      \
     },                                                                 \
     [](u8 seed, u8 how, u32) { return apply_facts(seed, how, applies); } \
    }

request_facts user_acl_facts(u8 seed, bool applies) {
    if (!is_valid(key_of(seed))) {
        return refused(22);
    }
    const bytes record = test::record_bytes(user_acl_of(seed));
    return facts_of(134, applies ? 37 : 38, wire().u32(0).add(record).u32(applies ? 1 : 0).zeros(4), record);
}

#define USER_ACL(call, applies)                       \
    {                                                 \
#call, [](u8 seed, u8, u32* id) {                   \
         const auto record = user_acl_of(seed);          \
         return call(&record, id);                       \
     },                                                  \
     [](u8 seed, u8, u32) { return user_acl_facts(seed, applies); } \
    }

// Its id has no upper bound here.
request_facts vmsup_facts(u8 seed) {
    const acl_key key = key_of(seed);
    if (!is_positive(key.acl_id) || key.app_type < 1 || key.app_type > 58) {
        return refused(22);
    }
    return facts_of(137, 39, wire().zeros(212).add(as_bytes(key)), as_bytes(key));
}

// Blocks around the critical sizes: one that fits with others, one that fills the batch, and one too large.
u32 block_length(u8 how) {
    constexpr std::array<u32, 16> lengths{1,    3,    1000, 2000, 4000, 4080,       8166,       8167,
                                          8168, 8200, 8160, 8000, 100,  0x80000000, 0xFFFFFFFF, 0};
    return lengths[how % lengths.size()];
}

const bytes& block_of(u8 seed) {
    static std::array<bytes, 256> blocks;
    if (blocks[seed].empty()) {
        blocks[seed].assign(8200, seed);
    }
    return blocks[seed];
}

request_facts block_facts(u8 seed, u8 how) {
    if (!is_positive(block_length(how))) {
        return refused(22);
    }
    const bytes block = test::slice(block_of(seed), 0, block_length(how));
    return facts_of(157, 50, wire().u32(block_length(how)).add(block), block);
}

scc_vlan_record vlans_of(u8 seed) {
    return test::patterned<scc_vlan_record>(seed);
}

bytes neighbour_bytes(u8 seed) {
    return test::record_bytes(test::patterned<scc_neighbour_record>(seed));
}

request_facts vlan_facts(u8 seed, u8 how) {
    request_facts facts =
        facts_of(167, 58, wire().u32(number_of(how)).add(test::record_bytes(vlans_of(seed))), {});
    facts.saved = facts.value;
    return facts;
}

request_facts offline_facts(u8 seed, u8 how) {
    request_facts facts = facts_of(166, 57, wire().u32(seed).u32(number_of(how)).u32(how), {});
    facts.saved = facts.value;
    return facts;
}

request_facts one_way_facts(u16 type, const bytes& value, bool on_sync_socket) {
    request_facts facts;
    facts.type = type;
    facts.value = value;
    facts.on_sync_socket = on_sync_socket;
    return facts;
}

request_facts snooping_facts(u8 seed, u8 how) {
    const scc_config_record record = config_of(seed, how);
    request_facts facts =
        record_facts(record.form == 9 ? 160 : 161, record.form == 9 ? 51 : 52, test::record_bytes(record));
    facts.late_error = record.form == 11 ? 22 : 0;
    return facts;
}

#define NUMBER number_of(seed)
#define CHECKED(condition, facts) ((condition) ? (facts) : refused(22))

// clang-format off
const request_row g_requests[] = {
    KEYED(scc_acl_create, (&key, id), acl_facts(key, true, app_id)),
    {"scc_acl_add_ace",
     [](u8 seed, u8 how, u32* id) {
         const scc_acl_key key = as_record(key_of(seed));
         const scc_ace_record ace = ace_of(how);
         return scc_acl_add_ace(&key, &ace, id);
     },
     [](u8 seed, u8 how, u32) {
         return CHECKED(is_valid(key_of(seed)), ace_facts(key_of(seed), how, true));
     }},
    KEYED(scc_acl_reseqence, (&key, start_of(how), step_of(how), id), resequence_facts(key, how)),
    {"scc_acl_delete_ace",
     [](u8 seed, u8 how, u32* id) {
         const scc_acl_key key = as_record(key_of(seed));
         const scc_ace_record ace = ace_of(how);
         return scc_acl_delete_ace(&key, &ace, id);
     },
     [](u8 seed, u8 how, u32) {
         return CHECKED(is_valid(key_of(seed)), ace_facts(key_of(seed), how, false));
     }},
    KEYED(scc_acl_delete, (&key, id), acl_facts(key, false, app_id)),
    SCALAR(scc_addr_learning, (NUMBER, how, id), 123, 23, wire().u32(NUMBER).u32(how), wire().u32(NUMBER).u8(how)),
    USER(scc_nac_user_set, 127, 27, true),
    {"scc_efacl_ctrl",
     [](u8 seed, u8 how, u32* id) { return scc_efacl_ctrl(block_of(seed).data(), block_length(how), id); },
     [](u8 seed, u8 how, u32) { return block_facts(seed, how); }},
    APPLY(scc_acl_apply, true),
    APPLY(scc_acl_unapply, false),
    USER_ACL(scc_user_acl_apply, true),
    USER_ACL(scc_user_acl_unapply, false),
    {"scc_user_acl_delete_vmsup",
     [](u8 seed, u8, u32* id) {
         const scc_acl_key key = as_record(key_of(seed));
         return scc_user_acl_delete_vmsup(&key, id);
     },
     [](u8 seed, u8, u32) { return vmsup_facts(seed); }},
    KEYED(scc_acl_reset_filter_counter, (&key, id),
          facts_of(139, 41, wire().add(as_bytes(key)).zeros(4), as_bytes(key))),
    KEYED(scc_acl_reset_counter, (&key, id),
          facts_of(140, 42, wire().add(as_bytes(key)).zeros(20), as_bytes(key))),
    KEYED(scc_ace_reset_counter, (&key, u64{how} << 33, id),
          facts_of(141, 43, wire().add(as_bytes(key)).zeros(4).u64(u64{how} << 33).zeros(8),
                   wire().add(as_bytes(key)).u64(u64{how} << 33))),
    RECORD(scc_d1x_authen_method, 101, 1),
    RECORD(scc_d1x_author_mode_set, 102, 2),
    RECORD(scc_d1x_port_addr_num, 103, 3),
    RECORD(scc_d1x_port_open, 104, 4),
    RECORD(scc_d1x_set_pt_ctrl, 105, 5),
    RECORD(scc_d1x_set_cos, 106, 6),
    RECORD(scc_d1x_set_dscp, 107, 7),
    RECORD(scc_webauth_set, 111, 10),
    RECORD(scc_sp_port_secuity, 116, 16),
    RECORD(scc_sp_port_violate, 169, 60),
    RECORD(scc_global_ip_mac, 118, 18),
    RECORD(scc_ip_source_guard_status, 119, 19),
    RECORD(scc_bind_except_port, 120, 20),
    RECORD(scc_dhcp_trust_port, 121, 21),
    RECORD(scc_nd_snooping_set, 162, 53),
    RECORD(scc_arpcheck, 122, 22),
    RECORD(scc_arpcheck_trust, 164, 55),
    RECORD(scc_nac_esc_eport_set, 125, 25),
    RECORD(scc_nac_app_set, 126, 26),
    {"scc_dhcp_snooping_set",
     [](u8 seed, u8 how, u32* id) {
         const auto record = config_of(seed, how);
         return scc_dhcp_snooping_set(&record, id);
     },
     [](u8 seed, u8 how, u32) { return snooping_facts(seed, how); }},
    USER(scc_arp_entry_set, 165, 56, false),
    USER(scc_arp_dyn_entry_set, 168, 59, false),
    SCALAR(scc_dot1x_redirect_enable, (static_cast<int>(NUMBER), id), 108, 8, wire().u32(NUMBER),
           wire().u8(static_cast<u8>(NUMBER))),
    SCALAR(scc_d1x_mac_move, (static_cast<int>(NUMBER), id), 109, 9, wire().u32(NUMBER),
           wire().u8(static_cast<u8>(NUMBER))),
    SCALAR(scc_http_dport_set, (static_cast<u16>(NUMBER), how, id), 112, 11, wire().u32(NUMBER & 0xFFFF).u32(how),
           wire().u16(static_cast<u16>(NUMBER)).u8(how)),
    SCALAR(scc_dirchn_host_set, (NUMBER, how, seed, ~NUMBER, how, id), 113, 12,
           wire().u32(NUMBER).u32(how).u32(seed).u32(~NUMBER).u32(how),
           wire().u32(NUMBER).u32(how).u8(seed).u32(~NUMBER).u8(how)),
    SCALAR(scc_dirchn_server_set, (NUMBER, how, id), 114, 13, wire().u32(NUMBER).u32(how), wire().u32(NUMBER).u8(how)),
    SCALAR(scc_dirchn_site_set, (NUMBER, ~NUMBER, how, seed, id), 115, 14,
           wire().u32(NUMBER).u32(~NUMBER).u32(how).u32(seed), wire().u32(NUMBER).u32(~NUMBER).u8(how).u8(seed)),
    SCALAR(scc_dirchn_arp_set, (NUMBER, ~NUMBER, how, id), 159, 15,
           wire().u32(NUMBER).u32(~NUMBER).u32(1).u32(how), wire().u32(NUMBER).u32(~NUMBER).u8(1).u8(how)),
    KEYED(scc_nac_esc_set, (NUMBER, &key, how, id),
          facts_of(124, 24, wire().u32(NUMBER).add(as_bytes(key)).u32(how),
                   wire().u32(NUMBER).add(as_bytes(key)).u8(how))),
    SCALAR(scc_ndsnp_default_bind_set, (NUMBER, ~NUMBER, how, id), 128, 28,
           wire().u32(NUMBER).u32(~NUMBER).u32(how), wire().u32(NUMBER).u32(~NUMBER).u8(how)),
    {"scc_nac_nbr_set",
     [](u8 seed, u8 how, u32* id) {
         const auto record = test::patterned<scc_neighbour_record>(seed);
         return scc_nac_nbr_set(&record, how, id);
     },
     [](u8 seed, u8 how, u32) {
         return facts_of(130, 30, wire().u32(0).add(neighbour_bytes(seed)).u32(how).u32(0),
                         wire().add(neighbour_bytes(seed)).u8(how));
     }},
    {"scc_cpp_set",
     [](u8 seed, u8 how, u32* id) { return scc_cpp_set(seed % 8 == 7 ? -1 : 0, how, id); },
     [](u8 seed, u8 how, u32) {
         return CHECKED(seed % 8 != 7, facts_of(163, 54, wire().u32(how).u32(0), wire().u32(0).u8(how)));
     }},
    {"scc_offline_detect_cfg",
     [](u8 seed, u8 how, u32* id) { return scc_offline_detect_cfg(seed, number_of(how), how, id); },
     [](u8 seed, u8 how, u32) { return offline_facts(seed, how); }},
    {"scc_direct_vlan_set",
     [](u8 seed, u8 how, u32* id) {
         const auto vlans = vlans_of(seed);
         return scc_direct_vlan_set(static_cast<int>(number_of(how)), &vlans, id);
     },
     [](u8 seed, u8 how, u32) { return vlan_facts(seed, how); }},
    {"scc_acl_global_eport_set",
     [](u8 seed, u8 how, u32* id) { return scc_acl_global_eport_set(seed * 300U, how, id); },
     [](u8 seed, u8 how, u32) {
         return CHECKED(seed * 300U >= 1 && seed * 300U <= 65535,
                        facts_of(142, 44, wire().u32(seed * 300U).u32(how).u32(0), wire().u32(seed * 300U).u8(how)));
     }},
    SCALAR(scc_svi_router_acl_set, (seed, id), 143, 45, wire().u32(seed), wire().u8(seed)),
    {"scc_data_recover",
     [](u8 seed, u8, u32*) { return scc_data_recover(static_cast<int>(NUMBER)); },
     [](u8 seed, u8, u32 app_id) {
         return counted(one_way_facts(201, wire().u32(0).u32(app_id).u32(NUMBER).u32(0), false), 12);
     }},
    {"scc_test_cmd_set",
     [](u8 seed, u8, u32*) { return scc_test_cmd_set(NUMBER); },
     [](u8 seed, u8, u32) { return one_way_facts(205, wire().u32(NUMBER), false); }},
    {"scc_warterline_notify",
     [](u8 seed, u8, u32*) { return scc_warterline_notify(static_cast<int>(NUMBER)); },
     [](u8 seed, u8, u32) { return one_way_facts(220, wire().u32(NUMBER), true); }},
};
// clang-format on

}  // namespace

std::span<const request_row> requests() {
    return g_requests;
}

}  // namespace model
