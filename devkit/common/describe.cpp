#include "common/describe.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "common/records.h"

namespace scc::devkit {
namespace {

constexpr std::size_t brief_bytes = 32;

std::string number_text(const message_field& field, u64 number, trace_detail detail) {
    const std::string_view name = detail == trace_detail::full ? name_of(field.names, number) : "";
    return name.empty() ? std::to_string(number) : fmt::format("{}({})", name, number);
}

// Quoted; a byte that is not a printable ASCII character is written as \xNN.
std::string quoted(byte_view bytes) {
    std::string text = "\"";
    for (const u8 each : bytes) {
        if (each == 0) {
            break;
        }
        const bool plain = each >= 0x20 && each < 0x7f && each != '"' && each != '\\';
        text += plain ? std::string(1, static_cast<char>(each)) : fmt::format("\\x{:02x}", each);
    }
    return text + "\"";
}

std::string field_text(byte_view value, const message_field& field, trace_detail detail) {
    const byte_view bytes = slice(value, field.offset, bytes_of(field, value.size()));
    switch (field.kind) {
        case field_kind::number8:
            return number_text(field, read_at<u8>(bytes, 0), detail);
        case field_kind::number16:
            return number_text(field, read_at<u16>(bytes, 0), detail);
        case field_kind::number32:
            return number_text(field, u32_at(bytes, 0), detail);
        case field_kind::number64:
            return number_text(field, u64_at(bytes, 0), detail);
        case field_kind::mac:
            return mac_text(mac_at(bytes, 0));
        case field_kind::ipv4:
            return ipv4_text(u32_at(bytes, 0));
        case field_kind::ipv6:
            return ipv6_text(bytes);
        case field_kind::address:
            return holds_ipv6(value, field) ? ipv6_text(bytes) : ipv4_text(u32_at(bytes, 0));
        case field_kind::key:
            return key_text(bytes, 0);
        case field_kind::text:
            return quoted(bytes);
        case field_kind::bytes:
            return hex_text(bytes);
        case field_kind::vlans:
            return fmt::format("{}", fmt::join(vlans_of(bytes), ","));
    }
    return {};
}

void add_fields(std::vector<shown_field>& into, const std::string& prefix, field_list fields, byte_view value,
                trace_detail detail) {
    for (const message_field& field : fields) {
        const bool wanted = detail == trace_detail::full || field.in_brief;
        if (!wanted || bytes_of(field, value.size()) == 0) {
            continue;
        }
        into.push_back({prefix + std::string(field.name), field_text(value, field, detail)});
    }
}

std::string bytes_text(byte_view value, trace_detail detail) {
    if (value.empty()) {
        return {};
    }
    const bool whole = detail == trace_detail::full || value.size() <= brief_bytes;
    return whole ? fmt::format(" {}", hex_text(value))
                 : fmt::format(" {}...", hex_text(slice(value, 0, brief_bytes)));
}

}  // namespace

std::string key_text(byte_view bytes, std::size_t offset) {
    const acl_identity key = key_at(bytes, offset);
    return fmt::format("{}/{}/{}/{}", key.vdev, key.app_type, key.acl_id, key.acl_class);
}

std::vector<shown_field> fields_of(const message_type& type, byte_view value, trace_detail detail) {
    const value_layout& layout = layout_of(type, value.size());
    std::vector<shown_field> all;
    add_fields(all, "", layout.fields, value, detail);
    const element_list& elements = layout.elements;
    std::size_t count = element_count(elements, value.size());
    if (detail == trace_detail::brief) {
        count = std::min<std::size_t>(count, 1);
    }
    for (std::size_t index = 0; index < count; ++index) {
        const byte_view element =
            slice(value, elements.offset + index * elements.element_bytes, elements.element_bytes);
        const std::string prefix =
            detail == trace_detail::full ? fmt::format("{}[{}].", elements.name, index) : "";
        add_fields(all, prefix, elements.fields, element, detail);
    }
    return all;
}

std::string describe(message_route route, const wire_item& item, trace_detail detail) {
    const message_type* row = find_message(route, item.type);
    std::string text = fmt::format("{} {}", item.type, row == nullptr ? "unknown" : row->name);
    if (item.sub_id != 0) {
        text += fmt::format(" scc-type={}", item.sub_id);
    }
    if (row != nullptr) {
        for (const shown_field& field : fields_of(*row, item.value, detail)) {
            text += fmt::format(" {}={}", field.name, field.text);
        }
    }
    return text + fmt::format(" ({} bytes)", item.value.size()) + bytes_text(item.value, detail);
}

}  // namespace scc::devkit
