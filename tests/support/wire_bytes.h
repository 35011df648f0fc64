// Wire bytes as a test writes them: integers in host byte order, appended by hand, and messages taken
// apart. Nothing here uses the library's own code.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace test {

using bytes = std::vector<std::uint8_t>;

// Appends integers and blocks: wire().u32(7).u8(1).zeros(3).
class wire {
  public:
    wire& u8(std::uint8_t value) { return raw(&value, 1); }
    wire& u16(std::uint16_t value) { return raw(&value, 2); }
    wire& u32(std::uint32_t value) { return raw(&value, 4); }
    wire& u64(std::uint64_t value) { return raw(&value, 8); }
    wire& zeros(std::size_t count) { return fill(count, 0); }
    wire& fill(std::size_t count, std::uint8_t value) {
        out_.insert(out_.end(), count, value);
        return *this;
    }
    wire& add(const bytes& block) {
        out_.insert(out_.end(), block.begin(), block.end());
        return *this;
    }
    wire& text(const std::string& characters) { return raw(characters.data(), characters.size()); }
    wire& raw(const void* data, std::size_t count) {
        const auto* at = static_cast<const std::uint8_t*>(data);
        out_.insert(out_.end(), at, at + count);
        return *this;
    }
    // Fills with zeros up to an offset.
    wire& to(std::size_t offset) {
        out_.resize(offset, 0);
        return *this;
    }
    operator bytes() const { return out_; }  // NOLINT(google-explicit-constructor)
    [[nodiscard]] const bytes& get() const { return out_; }

  private:
    bytes out_;
};

struct received_item {
    std::uint16_t sub_id = 0;
    std::uint16_t type = 0;
    bytes value;
};

struct received_message {
    bytes raw;  // header included
    std::vector<received_item> items;
};

// 8-byte item header and the value.
inline bytes item_bytes(std::uint16_t type, const bytes& value, std::uint16_t sub_id = 0) {
    return wire().u32(static_cast<std::uint32_t>(value.size())).u16(sub_id).u16(type).add(value);
}

// 8-byte message header and the items.
inline bytes message_bytes(const std::vector<bytes>& items) {
    bytes body;
    for (const bytes& item : items) {
        body.insert(body.end(), item.begin(), item.end());
    }
    return wire()
        .u32(static_cast<std::uint32_t>(8 + body.size()))
        .u8(1)
        .u16(static_cast<std::uint16_t>(items.size()))
        .u8(0)
        .add(body);
}

template <class T>
T number_at(const bytes& from, std::size_t offset) {
    T value{};
    if (offset + sizeof value <= from.size()) {
        std::memcpy(&value, from.data() + offset, sizeof value);
    }
    return value;
}

inline std::uint32_t u32_at(const bytes& from, std::size_t offset) {
    return number_at<std::uint32_t>(from, offset);
}

inline bytes slice(const bytes& from, std::size_t offset, std::size_t count) {
    return {from.begin() + static_cast<std::ptrdiff_t>(offset),
            from.begin() + static_cast<std::ptrdiff_t>(offset + count)};
}

template <class Record>
bytes record_bytes(const Record& record) {
    const auto* at = reinterpret_cast<const std::uint8_t*>(&record);
    return {at, at + sizeof record};
}

// Distinct byte values, so that a wrong offset shows.
template <class Record>
Record patterned(std::uint8_t first = 1) {
    Record record;
    auto* at = reinterpret_cast<std::uint8_t*>(&record);
    for (std::size_t i = 0; i < sizeof record; ++i) {
        at[i] = static_cast<std::uint8_t>(first + i * 7 + i / 251);
    }
    return record;
}

}  // namespace test
