#include "common/describe.h"

#include <fmt/format.h>

#include "common/records.h"

namespace scc::devkit {
namespace {

constexpr std::size_t shown_bytes = 32;

constexpr std::size_t width(field_kind kind) {
    switch (kind) {
        case field_kind::number8:
            return 1;
        case field_kind::number16:
            return 2;
        case field_kind::number32:
        case field_kind::ipv4:
            return 4;
        case field_kind::mac:
            return 6;
        case field_kind::number64:
            return 8;
        case field_kind::key:
            return record::acl_key;
    }
    return 0;
}

std::string field_text(byte_view value, const message_field& field) {
    switch (field.kind) {
        case field_kind::number8:
            return std::to_string(read_at<u8>(value, field.offset));
        case field_kind::number16:
            return std::to_string(read_at<u16>(value, field.offset));
        case field_kind::number32:
            return std::to_string(u32_at(value, field.offset));
        case field_kind::number64:
            return std::to_string(u64_at(value, field.offset));
        case field_kind::mac:
            return mac_text(mac_at(value, field.offset));
        case field_kind::ipv4:
            return ipv4_text(u32_at(value, field.offset));
        case field_kind::key:
            return key_text(value, field.offset);
    }
    return {};
}

}  // namespace

std::string key_text(byte_view bytes, std::size_t offset) {
    const acl_identity key = key_at(bytes, offset);
    return fmt::format("{}/{}/{}/{}", key.vdev, key.app_type, key.acl_id, key.acl_class);
}

std::string describe(message_route route, const wire_item& item) {
    const message_type* row = find_message(route, item.type);
    std::string text = fmt::format("{} {}", item.type, row == nullptr ? "unknown" : row->name);
    if (item.sub_id != 0) {
        text += fmt::format(" scc-type={}", item.sub_id);
    }
    if (row != nullptr) {
        for (const message_field& field : row->fields) {
            if (field.name.empty() || !holds(item.value, field.offset, width(field.kind))) {
                continue;
            }
            text += fmt::format(" {}={}", field.name, field_text(item.value, field));
        }
    }
    text += fmt::format(" ({} bytes)", item.value.size());
    if (!item.value.empty()) {
        text += fmt::format(" {}", hex_text(slice(item.value, 0, shown_bytes)));
    }
    if (item.value.size() > shown_bytes) {
        text += "...";
    }
    return text;
}

}  // namespace scc::devkit
