// The format is written out here independently, so that an error in the library's own routines cannot hide.
#include "support/wire_plan.h"

#include "support/fail.h"

namespace scc::fuzz {
namespace {

constexpr std::size_t header_size = 8;
constexpr std::size_t tail_bytes = 16;

template <class T>
void put(std::vector<u8>& at, T value) {
    const auto* bytes = reinterpret_cast<const u8*>(&value);
    at.insert(at.end(), bytes, bytes + sizeof value);
}

template <class T>
void overwrite(std::vector<u8>& at, std::size_t offset, T value) {
    std::memcpy(at.data() + offset, &value, sizeof value);
}

template <class T>
T get(std::span<const u8> at, std::size_t offset) {
    T value;
    std::memcpy(&value, at.data() + offset, sizeof value);
    return value;
}

u32 planned_length(input& from, u32 least_bytes) {
    const u8 code = from.byte();
    if (code < 0x80) {
        return code;
    }
    if (code < 0xC0) {
        return least_bytes + (code - 0x80u);
    }
    if (code == 0xFF) {
        return from.word();
    }
    const u32 less = code - 0xBFu;
    return least_bytes > less ? least_bytes - less : 0;
}

// For a twist from 0xF0 on: corrupts the finished message's counts and lengths.
void spoil(input& from, u8 twist, std::vector<u8>& stream, std::size_t begin) {
    switch (twist % 8) {
        case 0:
            overwrite<u16>(stream, begin + 5, from.word());
            break;
        case 1:
            overwrite<u32>(stream, begin, from.dword());
            break;
        case 2:  // the first item's length
            overwrite<u32>(stream, begin + header_size, from.dword());
            break;
        case 3:
            overwrite<u32>(stream, begin, get<u32>(stream, begin) + from.byte() - 128u);
            break;
        case 4:
            overwrite<u32>(stream, begin + header_size,
                           get<u32>(stream, begin + header_size) + from.byte() - 128u);
            break;
        case 5:
            stream.resize(stream.size() - std::min<std::size_t>(from.byte(), stream.size() - begin));
            break;
        case 6:
            stream[begin + 4] = from.byte();
            break;
        default: {  // any byte
            const auto bytes = from.bytes(from.byte());
            stream.insert(stream.end(), bytes.begin(), bytes.end());
            break;
        }
    }
}

}  // namespace

void append_planned_item(input& from, std::span<const planned_type> types, std::vector<u8>& stream) {
    const u8 choice = from.byte();
    planned_type row = types[choice % types.size()];
    if (choice >= 0xF0) {
        row.type = from.word();
    }
    const u32 length = planned_length(from, row.least_bytes);
    const u8 given = from.byte();
    const auto head = from.bytes(std::min<u32>(given >= 0xC0 ? given - 0xC0u : given, length));
    put<u32>(stream, length);
    put<u16>(stream, choice);  // the sub id
    put<u16>(stream, row.type);
    stream.insert(stream.end(), head.begin(), head.end());
    stream.resize(stream.size() + length - head.size());
    if (given >= 0xC0) {
        const auto tail = from.bytes(std::min<std::size_t>(tail_bytes, length - head.size()));
        std::copy(tail.begin(), tail.end(), stream.end() - static_cast<std::ptrdiff_t>(tail.size()));
    }
}

void append_planned_message(input& from, std::span<const planned_type> types, std::vector<u8>& stream) {
    const std::size_t begin = stream.size();
    const u8 twist = from.byte();
    const u8 items = from.byte();
    stream.resize(begin + header_size);
    stream[begin + 4] = 1;
    u16 count = 0;
    if (items >= 0xE0) {
        const std::size_t at = stream.size();
        append_planned_item(from, types, stream);
        const std::vector<u8> item(stream.begin() + static_cast<std::ptrdiff_t>(at), stream.end());
        const unsigned copies = (items - 0xDFu) * 8;
        for (count = 1; count < copies && stream.size() < 16384; ++count) {
            stream.insert(stream.end(), item.begin(), item.end());
        }
    } else {
        for (count = 0; count < items % 8u + 1; ++count) {
            append_planned_item(from, types, stream);
        }
    }
    overwrite<u32>(stream, begin, static_cast<u32>(stream.size() - begin));
    overwrite<u16>(stream, begin + 5, count);
    if (twist >= 0xF0) {
        spoil(from, twist, stream, begin);
    }
}

void append_message(std::vector<u8>& stream, u16 sub_id, u16 type, std::span<const u8> value) {
    put<u32>(stream, static_cast<u32>(2 * header_size + value.size()));
    put<u8>(stream, 1);
    put<u16>(stream, 1);
    put<u8>(stream, 0);
    put<u32>(stream, static_cast<u32>(value.size()));
    put<u16>(stream, sub_id);
    put<u16>(stream, type);
    stream.insert(stream.end(), value.begin(), value.end());
}

std::size_t walk_messages(std::span<const u8> stream,
                          void (*item)(void* context, u16 sub_id, u16 type, std::span<const u8> value),
                          void* context) {
    std::size_t done = 0;
    while (stream.size() - done >= header_size) {
        const auto rest = stream.subspan(done);
        const u32 length = get<u32>(rest, 0);
        FUZZ_EXPECT(length > header_size && length < 0x01000000);
        FUZZ_EXPECT(rest[4] == 1 && rest[7] == 0);
        if (rest.size() < length) {
            break;
        }
        std::size_t offset = header_size;
        const u16 count = get<u16>(rest, 5);
        FUZZ_EXPECT(count > 0);
        for (u16 i = 0; i < count; ++i) {
            FUZZ_EXPECT(length - offset >= header_size);
            const u32 value_bytes = get<u32>(rest, offset);
            FUZZ_EXPECT(value_bytes <= length - offset - header_size);
            item(context, get<u16>(rest, offset + 4), get<u16>(rest, offset + 6),
                 rest.subspan(offset + header_size, value_bytes));
            offset += header_size + value_bytes;
        }
        FUZZ_EXPECT(offset == length);
        done += length;
    }
    return done;
}

}  // namespace scc::fuzz
