#include "model/operations.h"

namespace model {
namespace {

// Few ids, so that one recurs before it was answered. They wrap, and lie less than half their range apart:
// the map orders them by signed differences, which are inconsistent beyond that.
u32 id_of(u8 seed) {
    constexpr std::array<u32, 5> ids{1, 2, 0, 0xFFFFFFFF, 0xC0000000};
    return ids[seed % ids.size()];
}

bytes value_of(u32 id, const acl_key& key, std::size_t length) {
    return wire().u32(id).add(as_bytes(key)).to(length);
}

void put(bytes& into, std::size_t offset, u32 value) {
    std::memcpy(into.data() + offset, &value, sizeof value);
}

operation keyed(u16 type, u8 seed, std::size_t length, std::size_t choice, u32 chosen, u32 first_handler) {
    const u32 id = id_of(seed);
    operation made{
        type, value_of(id, key_of(seed), length), id, first_handler, 0, true, true, false, false, false,
        type};
    put(made.value, choice, chosen);
    made.handler = chosen == 1 ? first_handler : first_handler + 1;
    made.code = made.handler - 1;
    return made;
}

operation unkeyed(u16 type, u8 seed, const bytes& after_id, u32 handler, u32 code) {
    const u32 id = id_of(seed);
    return {type, wire().u32(id).add(after_id), id, handler, code, false, false, false, false, false, type};
}

operation counter(u16 type, u8 seed, u32 choice, bool has_ace) {
    const u32 id = id_of(seed);
    bytes value = value_of(id, key_of(seed), 40);
    put(value, 24, number_of(seed));
    put(value, 32, choice);
    // No word of the answer: a counter's answer has another form.
    return {type, value, id, has_ace ? 10U : 9U, 9, true, false, true, has_ace, choice == 1, 0};
}

}  // namespace

operation make_operation(u8 which, u8 seed) {
    const u32 low = which >> 4 & 1U;
    switch (which % operation_kinds) {
        case 0:
        case 1:
            return keyed(131, seed, 140, 136, 1 - low, 1);
        case 2:
        case 3:
            return keyed(132, seed, 944, 936, 1 - low, 3);
        case 4:
        case 5: {
            operation made = keyed(133, seed, 248, 240, 1 - low, 5);
            made.has_key = false;  // the bytes in its place are not the ACL's key
            return made;
        }
        case 6: {
            operation made =
                unkeyed(138, seed, wire().add(as_bytes(key_of(seed))).u32(number_of(seed)).u32(seed), 7, 6);
            made.has_key = true;
            return made;
        }
        case 7:
            return unkeyed(143, seed, wire().u32(seed), 8, 7);
        case 8:
            return unkeyed(142, seed, wire().u32(seed).u32(low).u32(0), 11, 8);
        case 9:
            return unkeyed(163, seed, wire().u32(low).u32(seed), 12, 11);
        case 10:
            return counter(140, seed, 0, false);
        case 11:
            return counter(312, seed, 1, false);
        case 12:
            return counter(141, seed, 0, true);
        case 13:
            return counter(313, seed, 1, true);
        case 14:
            return counter(312, seed, 2, false);  // not a query: only exactly 1 is
        default:
            return keyed(131, seed, 140, 136, 2, 1);  // neither 0 nor 1 deletes
    }
}

bytes answer_value(const operation& of, const operation_answer& with) {
    if (!of.is_counter) {
        return wire().u32(of.id).u32(with.result).u32(of.answered_type);
    }
    wire value;
    value.u32(of.id);
    if (of.has_ace) {
        value.add(test::slice(of.value, 4, 16)).u32(0).add(test::slice(of.value, 24, 8));
    } else {
        value.zeros(28);
    }
    return value.u64(with.counter).u32(with.result).u32(0);
}

}  // namespace model
