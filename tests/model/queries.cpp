#include "model/queries.h"

namespace model {
namespace {

constexpr u32 mark = 0xA5A5A5A5;

query_facts refused(const bytes& untouched) {
    query_facts facts;
    facts.early_error = 22;
    facts.untouched = untouched;
    return facts;
}

query_facts facts_of(u16 type, const bytes& value, u16 reply_type, const bytes& reply) {
    query_facts facts;
    facts.type = type;
    facts.value = value;
    facts.reply_type = reply_type;
    facts.reply = reply;
    return facts;
}

// For a query with one number, which is left alone unless the result is 0.
query_facts number_facts(query_facts facts, u32 result, const bytes& untouched, const bytes& answer) {
    facts.result = result;
    facts.untouched = untouched;
    facts.answer = result == 0 ? answer : untouched;
    return facts;
}

bytes counter_value(u8 seed) {
    return wire().u64(u64{number_of(seed)} << 20);
}

query_facts counter_facts(const acl_key& key, query_facts facts, u32 result, u8 seed, bool is_cleared) {
    const bytes marked = wire().u64(mark);
    if (!is_valid(key)) {
        return refused(marked);
    }
    return number_facts(std::move(facts), result, is_cleared ? bytes(wire().u64(0)) : marked,
                        counter_value(seed));
}

bytes entries(u8 seed) {
    return wire().fill(48, seed).fill(48, static_cast<u8>(seed + 1)).fill(48, static_cast<u8>(seed + 2));
}

// Space for two entries; the daemon has between none and three.
query_facts arp_users_facts(u8 seed, u32 result) {
    const u32 count = seed % 4U;
    query_facts facts = facts_of(305, wire().u32(0).u32(seed).u32(2), 410,
                                 wire().u32(result).u32(0).u32(count).add(entries(seed)));
    const u32 copied = count < 2 ? count : 2;
    const bytes room(96, 0xEE);
    return number_facts(
        facts, result, wire().u32(2).add(room),
        wire().u32(copied).add(test::slice(entries(seed), 0, copied * 48U)).fill(96 - copied * 48U, 0xEE));
}

query_facts user_facts(u8 seed, u32 result) {
    scc_user_record record = user_of(seed, 0);
    const bytes before = test::record_bytes(record);
    if (record.operation != 2) {
        return refused(before);
    }
    const bytes after = test::record_bytes(test::patterned<scc_user_record>(static_cast<u8>(seed + 1)));
    query_facts facts = facts_of(307, wire().u32(0xFFFFFFFF).u32(0).add(before), 401,
                                 wire().u32(0).u32(result).zeros(2).add(after));
    facts.result = result;
    facts.untouched = before;
    facts.answer = after;  // whatever the result
    return facts;
}

query_facts record_query_facts(u16 type, u16 reply_type, u8 seed, u32 result) {
    query_facts facts = facts_of(type, wire().u32(0).u32(0).add(test::record_bytes(config_of(seed, 0))),
                                 reply_type, wire().u32(result).zeros(8));
    facts.takes_call_id = true;
    facts.result = result;
    return facts;
}

bytes mac_of(u8 seed) {
    return wire().u32(number_of(seed)).u16(seed);
}

query_facts mac_facts(u8 seed, u32 result) {
    query_facts facts = facts_of(315, wire().u32(0).add(mac_of(seed)).to(152), 413,
                                 wire().zeros(12).u32(result).to(32).u32(number_of(seed)).to(152));
    facts.takes_call_id = true;
    return number_facts(facts, result, wire().u32(mark), wire().u32(number_of(seed)));
}

query_facts vmsup_facts(u8 seed) {
    query_facts facts = facts_of(314, wire().zeros(8).add(test::record_bytes(user_acl_of(seed))).to(232), 136,
                                 bytes(20, seed));
    facts.untouched = bytes(16, 0xEE);
    facts.answer = bytes(16, seed);
    return facts;
}

#define COUNTER(call, arguments, facts, is_cleared)                                           \
    {                                                                                         \
#call, [](u8 seed, u32*, bytes& out) {                                                      \
         const scc_acl_key key = as_record(key_of(seed));                                        \
         u64 counter = mark;                                                                     \
         const u32 error = call arguments;                                                       \
         out = wire().u64(counter);                                                              \
         return error;                                                                           \
     },                                                                                          \
     [](u8 seed, u32 result) {                                                                   \
         const acl_key key = key_of(seed);                                                       \
         return counter_facts(key, facts, result, seed, is_cleared);                             \
     } \
    }

const query_row g_queries[] = {
    {"scc_arp_check_user_count_get",
     [](u8 seed, u32*, bytes& out) {
         u32 count = mark;
         const u32 error = scc_arp_check_user_count_get(number_of(seed), &count);
         out = wire().u32(count);
         return error;
     },
     [](u8 seed, u32 result) {
         return number_facts(facts_of(304, wire().u32(0).u32(number_of(seed)).u32(0), 411,
                                      wire().u32(result).u32(9).u32(seed)),
                             result, wire().u32(mark), wire().u32(seed));
     }},
    {"scc_is_arp_check_enabled",
     [](u8, u32*, bytes& out) {
         u8 enabled = 0xEE;
         const u32 error = scc_is_arp_check_enabled(&enabled);
         out = {enabled};
         return error;
     },
     [](u8 seed, u32) {
         query_facts facts = facts_of(303, {}, 405, wire().u32(seed % 3 * 0x100U));
         facts.untouched = {0xEE};
         facts.answer = {static_cast<u8>(seed % 3 != 0 ? 1 : 0)};
         return facts;
     }},
    {"scc_arp_check_user_data_get",
     [](u8 seed, u32*, bytes& out) {
         bytes room(96, 0xEE);
         int count = 2;
         const u32 error = scc_arp_check_user_data_get(seed, room.data(), &count);
         out = wire().u32(static_cast<u32>(count)).add(room);
         return error;
     },
     arp_users_facts},
    {"scc_nac_user_get",
     [](u8 seed, u32*, bytes& out) {
         scc_user_record record = user_of(seed, 0);
         const u32 error = scc_nac_user_get(&record);
         out = test::record_bytes(record);
         return error;
     },
     user_facts},
    {"scc_sp_port_addr_num",
     [](u8 seed, u32* id, bytes&) {
         const auto record = config_of(seed, 0);
         return scc_sp_port_addr_num(&record, id);
     },
     [](u8 seed, u32 result) { return record_query_facts(317, 415, seed, result); }},
    {"scc_nac_span_dport_set",
     [](u8 seed, u32* id, bytes&) {
         const auto record = config_of(seed, 0);
         return scc_nac_span_dport_set(&record, id);
     },
     [](u8 seed, u32 result) { return record_query_facts(316, 414, seed, result); }},
    {"scc_mac_query",
     [](u8 seed, u32*, bytes& out) {
         u32 ip = mark;
         const u32 error = scc_mac_query(mac_of(seed).data(), &ip);
         out = wire().u32(ip);
         return error;
     },
     mac_facts},
    {"scc_user_acl_change_vmsup",
     [](u8 seed, u32*, bytes& out) {
         const auto record = user_acl_of(seed);
         out.assign(16, 0xEE);
         return scc_user_acl_change_vmsup(&record, out.data());
     },
     [](u8 seed, u32) { return vmsup_facts(seed); }},
    COUNTER(scc_acl_get_filter_counter, (&key, &counter),
            facts_of(311, wire().u32(0).add(as_bytes(key)).u32(1), 409,
                     wire().zeros(16).add(counter_value(seed)).u32(result)),
            true),
    COUNTER(scc_acl_get_counter, (&key, &counter),
            facts_of(312, wire().u32(0).add(as_bytes(key)).to(32).u32(1).u32(0), 408,
                     wire().zeros(32).add(counter_value(seed)).u32(result)),
            false),
    COUNTER(scc_ace_get_counter, (&key, u64{seed} << 40, &counter),
            facts_of(313, wire().u32(0).add(as_bytes(key)).u32(0).u64(u64{seed} << 40).u32(1).u32(0), 407,
                     wire().zeros(32).add(counter_value(seed)).u32(result)),
            false),
};

}  // namespace

std::span<const query_row> queries() {
    return g_queries;
}

}  // namespace model
