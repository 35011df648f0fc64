#include "common/frame.h"

#include <limits>
#include <utility>

namespace scc::devkit {
namespace {

constexpr std::size_t version_offset = 4;
constexpr std::size_t count_offset = 5;

message_frame troubled(frame_state state, u32 len, std::string_view problem) {
    return {state, len, {}, problem};
}

message_frame cut_items(byte_view message, u32 len) {
    message_frame frame{frame_state::complete, len, {}, {}};
    const u16 count = read_at<u16>(message, count_offset);
    std::size_t offset = wire::header_bytes;
    for (u16 index = 0; index < count; ++index) {
        if (!holds(message, offset, wire::item_header_bytes)) {
            return troubled(frame_state::refused, len, "an item header does not fit");
        }
        const u32 value_len = u32_at(message, offset);
        const std::size_t value_offset = offset + wire::item_header_bytes;
        if (!holds(message, value_offset, value_len)) {
            return troubled(frame_state::refused, len, "an item's value does not fit");
        }
        frame.items.push_back({read_at<u16>(message, offset + 4), read_at<u16>(message, offset + 6),
                               message.subspan(value_offset, value_len)});
        offset = value_offset + value_len;
    }
    if (offset != message.size()) {
        return troubled(frame_state::refused, len, "bytes are left after the last item");
    }
    return frame;
}

}  // namespace

message_frame first_frame(byte_view stream, u32 len_max) {
    if (stream.size() < wire::header_bytes) {
        return {};
    }
    const u32 len = u32_at(stream, 0);
    if (len < wire::header_bytes) {
        return troubled(frame_state::broken, len, "the length is below a header's");
    }
    if (len > len_max) {
        return troubled(frame_state::broken, len, "the length is beyond every limit");
    }
    if (stream.size() < len) {
        return {};
    }
    if (read_at<u8>(stream, version_offset) != wire::version) {
        return troubled(frame_state::refused, len, "the version is unknown");
    }
    if (read_at<u16>(stream, count_offset) == 0) {
        return troubled(frame_state::refused, len, "the message has no item");
    }
    return cut_items(stream.first(len), len);
}

void message_builder::clear() {
    message_.assign(wire::header_bytes, 0);
    message_[version_offset] = wire::version;
    count_ = 0;
}

void message_builder::add(u16 sub_id, u16 type, byte_view value) {
    const std::size_t offset = message_.size();
    message_.resize(offset + wire::item_header_bytes + value.size());
    write_at(message_, offset, static_cast<u32>(value.size()));
    write_at(message_, offset + 4, sub_id);
    write_at(message_, offset + 6, type);
    copy_at(message_, offset + wire::item_header_bytes, value);
    ++count_;
}

bool message_builder::fits(std::size_t value_len, std::size_t message_max) const {
    if (count_ == std::numeric_limits<u16>::max()) {
        return false;
    }
    return message_.size() + wire::item_header_bytes + value_len <= message_max;
}

byte_buffer message_builder::take() {
    write_at(message_, 0, static_cast<u32>(message_.size()));
    write_at(message_, count_offset, count_);
    byte_buffer message = std::move(message_);
    clear();
    return message;
}

byte_buffer single_item_message(u16 sub_id, u16 type, byte_view value) {
    message_builder builder;
    builder.add(sub_id, type, value);
    return builder.take();
}

}  // namespace scc::devkit
