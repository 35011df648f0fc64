#include "model/notifications.h"

#include "model/arguments.h"

namespace model {
namespace {

bytes filler(u8 seed, std::size_t count) {
    bytes out(count);
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<u8>(seed + i * 5 + i / 250);
    }
    return out;
}

// Appends arguments in the handler's order.
class heard {
  public:
    template <class Number>
    heard& number(Number value) {
        append_number(out_, value);
        return *this;
    }
    heard& block(const bytes& from, std::size_t offset, std::size_t count) {
        append_block(out_, from.data() + offset, count);
        return *this;
    }
    operator bytes() const { return out_; }  // NOLINT(google-explicit-constructor)

  private:
    bytes out_;
};

notification address_move(u8 seed) {
    const u32 count = seed % 4U;
    const bytes value = wire().u32(seed).u32(count).add(filler(seed, count * 16U));
    return {110, value, 10, heard().number(count).block(value, 8, count * 16U), 11, 11};
}

notification user_change(u8 seed) {
    const u8 add = seed % 3;
    const bytes value = wire().add(filler(seed, 16)).u8(add).to(24).add(filler(seed, 80));
    const int counter = add != 0 ? 8 : 9;
    return {127,     value,   63,  heard().number(add).block(value, 24, 56).block(value, 80, 8),
            counter, counter, true};
}

notification no_flow(u8 seed) {
    const u32 count = seed % 5U;
    const bytes value = wire().add(filler(seed, 80)).u32(count).to(88).add(filler(seed, count));
    return {212,
            value,
            48,
            heard()
                .block(value, 8, 56)
                .number(test::number_at<u64>(value, 64))
                .number(test::number_at<u64>(value, 72))
                .block(value, 88, count)
                .number(count),
            10,
            10};
}

notification flow(u8 seed) {
    const bytes value = filler(seed, 80);
    return {211, value, 57,
            heard()
                .block(value, 8, 56)
                .number(test::number_at<u64>(value, 64))
                .number(test::number_at<u64>(value, 72))};
}

notification offline(u8 seed) {
    const bytes value = filler(seed, 16);
    return {209, value, 61,
            heard()
                .number(test::u32_at(value, 0))
                .number(value[4])
                .number(test::u32_at(value, 8))
                .number(test::u32_at(value, 12))};
}

notification ace_counters(u8 seed) {
    const u32 count = seed % 3U;
    const bytes value = wire().add(filler(seed, 20)).u32(count).add(filler(seed, count * 16U));
    return {407, value, 55, heard().block(value, 4, 16).number(count).block(value, 24, count * 16U)};
}

notification unheard(u16 type, const bytes& value) {
    return {type, value, heard_by_nobody, {}};
}

}  // namespace

int answer_to_user_change(u8 add) {
    return add == 2 ? 1 : 0;
}

notification make_notification(u8 which, u8 seed) {
    switch (which % notification_kinds) {
        case 0:
            return address_move(seed);
        case 1:
            return user_change(seed);
        case 2:
            return no_flow(seed);
        case 3:
            return flow(seed);
        case 4:
            return offline(seed);
        case 5: {
            const bytes value = filler(seed, 5);
            return {210, value, 56, heard().number(value[4])};
        }
        case 6: {
            const bytes value = filler(seed, 520);
            return {213, value, 47, heard().block(value, 8, 512)};
        }
        case 7: {
            const bytes value = filler(seed, 8);
            return {214, value, 49, heard().number(test::u32_at(value, 4))};
        }
        case 8:
            return {216, wire().u32(1).u32(number_of(seed)).u32(seed % 3U), 64,
                    heard().number(static_cast<u8>(seed % 3 != 0 ? 1 : 0)).number(number_of(seed))};
        case 9: {
            const bytes value = filler(seed, 64);
            return {217, value, 65, heard().number(value[60]).block(value, 4, 56)};
        }
        case 10: {
            const bytes value = filler(seed, 24);
            return {219, value, 66, heard().block(value, 8, 16)};
        }
        case 11:
            return unheard(220, wire().u32(seed));  // its handler is never installed
        case 12:
            return ace_counters(seed);
        case 13:
            return unheard(406, filler(seed, 8));  // the capability word
        case 14:
            return unheard(215, filler(seed, seed));
        default:
            return unheard(400, filler(seed, seed % 8U));
    }
}

}  // namespace model
