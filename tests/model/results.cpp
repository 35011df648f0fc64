#include "model/results.h"

#include <map>

namespace model {
namespace {

enum class form : u8 { u8_at, u16_at, u32_at, u64_at, block_at, whole_and_length };

struct argument {
    form what;
    u32 offset = 0;
    u32 length = 0;  // of a block
};

struct kind_row {
    u32 position;
    std::vector<argument> arguments;
};

constexpr argument byte(u32 offset) {
    return {form::u8_at, offset};
}
constexpr argument half(u32 offset) {
    return {form::u16_at, offset};
}
constexpr argument word(u32 offset) {
    return {form::u32_at, offset};
}
constexpr argument block(u32 offset, u32 length) {
    return {form::block_at, offset, length};
}

constexpr argument config = block(0, 736);
constexpr argument key = block(0, 16);
constexpr argument ace = block(16, 912);

const std::map<u32, kind_row>& kinds() {
    static const std::map<u32, kind_row> rows{
        {1, {1, {config}}},
        {2, {2, {config}}},
        {3, {3, {config}}},
        {4, {4, {config}}},
        {5, {5, {config}}},
        {6, {6, {config}}},
        {7, {7, {config}}},
        {8, {8, {byte(0)}}},
        {9, {9, {byte(0)}}},
        {10, {11, {config}}},
        {11, {12, {half(0), byte(2)}}},
        {12, {13, {word(0), word(4), byte(8), word(9), byte(13)}}},
        {13, {14, {word(0), byte(4)}}},
        {14, {15, {word(0), word(4), byte(8), byte(9)}}},
        {15, {16, {word(0), word(4), byte(9)}}},
        {16, {17, {config}}},
        {18, {19, {config}}},
        {19, {20, {config}}},
        {20, {21, {config}}},
        {21, {22, {config}}},
        {22, {23, {config}}},
        {23, {24, {word(0), byte(4)}}},
        {24, {25, {word(0), block(4, 16), byte(20)}}},
        {25, {26, {config}}},
        {26, {27, {config}}},
        {27, {28, {config}}},
        {28, {29, {word(0), word(4), byte(8)}}},
        {30, {31, {block(0, 912), byte(912)}}},
        {31, {32, {key}}},
        {32, {33, {key}}},
        {33, {34, {key, ace}}},
        {34, {35, {key, ace}}},
        {35, {36, {block(0, 232)}}},
        {36, {37, {block(0, 232)}}},
        {37, {38, {block(0, 208)}}},
        {38, {39, {block(0, 208)}}},
        {39, {40, {key}}},
        {40, {41, {key, word(16), word(20)}}},
        {41, {42, {key}}},
        {42, {43, {key}}},
        {43, {44, {key, {form::u64_at, 16}}}},
        {44, {45, {word(0), byte(4)}}},
        {45, {46, {byte(0)}}},
        {50, {50, {{form::whole_and_length}}}},
        {51, {51, {config}}},
        {52, {52, {config}}},
        {53, {53, {config}}},
        {54, {54, {word(0), byte(4)}}},
        {55, {58, {config}}},
        {56, {59, {config}}},
        {57, {60, {byte(4), word(8), word(12)}}},
        {58, {62, {byte(4), block(8, 512)}}},
        {59, {68, {config}}},
        {60, {69, {config}}},
    };
    return rows;
}

void append(bytes& to, const argument& what, const bytes& saved) {
    switch (what.what) {
        case form::u8_at:
            append_number(to, test::number_at<u8>(saved, what.offset));
            break;
        case form::u16_at:
            append_number(to, test::number_at<u16>(saved, what.offset));
            break;
        case form::u32_at:
            append_number(to, test::number_at<u32>(saved, what.offset));
            break;
        case form::u64_at:
            append_number(to, test::number_at<u64>(saved, what.offset));
            break;
        case form::block_at:
            append_block(to, saved.data() + what.offset, what.length);
            break;
        case form::whole_and_length:
            append_block(to, saved.data(), saved.size());
            append_number(to, static_cast<std::int32_t>(saved.size()));
            break;
    }
}

}  // namespace

result_target target_of(u32 kind, u32 result, u32 call_id, const bytes& saved) {
    const auto row = kinds().find(kind);
    if (row == kinds().end()) {
        return {};
    }
    result_target target{row->second.position, {}};
    append_number(target.arguments, result);
    append_number(target.arguments, call_id);
    for (const argument& each : row->second.arguments) {
        append(target.arguments, each, saved);
    }
    return target;
}

int outcome_counter_of(u32 kind, const bytes& saved) {
    if (kind >= 31 && kind <= 36) {
        return static_cast<int>(kind) - 31;
    }
    if (kind == 27) {
        const u32 operation = test::u32_at(saved, 24);
        return operation == 1 ? 6 : operation == 3 ? 7 : -1;
    }
    return -1;
}

}  // namespace model
