// The arguments of requests, queries and items, derived from an act's two small numbers. There are few ACLs,
// so that they recur; sequence numbers that coincide, and those at and beyond the end of the renumbered
// range.
#pragma once

#include <array>

#include "model/events.h"
#include "scclib.h"

namespace model {

struct acl_key {
    u32 vdev_id;
    u32 app_type;
    u32 acl_id;
    u32 acl_class;
};

// Invalid from 0xF8 on.
inline acl_key key_of(u8 seed) {
    constexpr std::array<u32, 3> ids{1, 77, 32768};
    acl_key key{seed & 1U, (seed >> 1 & 1) != 0 ? 58U : 1U, ids[(seed >> 2) % ids.size()], 100U + seed};
    switch (seed) {
        case 0xF8:
            key.acl_id = 0;
            break;
        case 0xF9:
            key.acl_id = 32769;
            break;
        case 0xFA:
            key.app_type = 0;
            break;
        case 0xFB:
            key.app_type = 59;
            break;
        case 0xFC:
            key.acl_id = 0x80000001;
            break;
        default:
            break;
    }
    return key;
}

inline bool is_valid(const acl_key& key) {
    return key.acl_id >= 1 && key.acl_id <= 32768 && key.app_type >= 1 && key.app_type <= 58;
}

inline scc_acl_key as_record(const acl_key& key) {
    return {key.vdev_id, key.app_type, key.acl_id, key.acl_class};
}

inline bytes as_bytes(const acl_key& key) {
    return wire().u32(key.vdev_id).u32(key.app_type).u32(key.acl_id).u32(key.acl_class);
}

inline u32 number_of(u8 seed) {
    return 0x9E3779B1U * (seed + 1U);
}

inline u32 sequence_number_of(u8 how) {
    constexpr std::array<u32, 16> numbers{10, 5,  5,          20,         7,          1,          0,  30,
                                          11, 10, 0x7FFFFFFE, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 15, 40};
    return numbers[how % numbers.size()];
}

inline u32 ace_id_of(u8 how) {
    return how >> 4 & 3U;
}

inline scc_ace_record ace_of(u8 how) {
    auto ace = test::patterned<scc_ace_record>(how);
    ace.sn = sequence_number_of(how);
    ace.ace_id = ace_id_of(how);
    return ace;
}

inline scc_config_record config_of(u8 seed, u8 how) {
    auto record = test::patterned<scc_config_record>(seed);
    record.form = 9 + how % 3U;
    return record;
}

inline scc_user_record user_of(u8 seed, u8 how) {
    auto record = test::patterned<scc_user_record>(seed);
    record.entry_type = seed % 7U;
    record.operation = seed % 8 == 7 ? 2 : 1 + 2 * (seed & 1U);
    record.flags = (how & 1U) * 0x4 + (how >> 1 & 1U) * 0x2 + (how >> 2 & 1U) * 0x200;
    return record;
}

inline scc_acl_apply_record apply_of(u8 seed, u8 how) {
    constexpr std::array<u32, 5> types{0, 1, 58, 59, 0x80000000};
    auto record = test::patterned<scc_acl_apply_record>(seed);
    record.key = as_record(key_of(seed));
    record.apply_type = types[how % types.size()];
    return record;
}

inline scc_user_acl_record user_acl_of(u8 seed) {
    auto record = test::patterned<scc_user_acl_record>(seed);
    record.key = as_record(key_of(seed));
    return record;
}

}  // namespace model
