// Reading and writing integers in byte buffers: the one place where wire bytes become numbers.
// Offsets are unaligned; integers are in host byte order.
#pragma once

#include <cstring>
#include <span>

#include "msg/protocol.h"

namespace scc {

template <class T>
[[nodiscard]] inline T load(const void* bytes, std::size_t offset = 0) {
    T value;
    std::memcpy(&value, static_cast<const u8*>(bytes) + offset, sizeof value);
    return value;
}

template <class T>
inline void store(void* bytes, std::size_t offset, T value) {
    std::memcpy(static_cast<u8*>(bytes) + offset, &value, sizeof value);
}

template <class T>
[[nodiscard]] inline std::span<const u8> bytes_of(const T& value) {
    return {reinterpret_cast<const u8*>(&value), sizeof value};
}

// One item of a received message. The value points into the message.
struct item {
    u16 sub_id = 0;
    u16 type = 0;
    std::span<const u8> value;
};

// Walks the items of a received message. The caller has checked that they fit (items_fit).
class item_reader {
  public:
    item_reader(u16 count, const void* first) : left_(count), at_(static_cast<const u8*>(first)) {}

    [[nodiscard]] bool next(item& out) {
        if (left_ == 0) {
            return false;
        }
        const u32 length = load<u32>(at_);
        out = {load<u16>(at_, 4), load<u16>(at_, 6), {at_ + wire::item_header_bytes, length}};
        at_ += std::size_t{wire::item_header_bytes} + length;
        --left_;
        return true;
    }

  private:
    u16 left_;
    const u8* at_;
};

// Whether the items stay within the message, whatever lengths a hostile peer wrote.
[[nodiscard]] inline bool items_fit(std::span<const u8> message) {
    u64 offset = wire::header_bytes;
    for (u16 left = load<u16>(message.data(), 5); left != 0; --left) {
        if (offset + wire::item_header_bytes > message.size()) {
            return false;
        }
        offset += u64{wire::item_header_bytes} + load<u32>(message.data(), offset);
    }
    return offset <= message.size();
}

}  // namespace scc
