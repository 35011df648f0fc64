#include "sccd/record_fields.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "common/describe.h"
#include "common/records.h"

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
using enum devkit::field_kind;

constexpr std::string_view whole_record = "bytes";

std::size_t width_of(const record_field& field, std::size_t record_bytes) {
    switch (field.kind) {
        case number8:
            return 1;
        case number16:
            return 2;
        case number32:
        case ipv4:
            return 4;
        case number64:
            return 8;
        case mac:
            return 6;
        case ipv6:
        case key:
            return 16;
        case text:
            return field.bytes;
        case vlans:
            return record::direct_vlan;
        case bytes:
            return record_bytes - std::min<std::size_t>(record_bytes, field.offset);
        case address:
            break;  // no record that is kept has one
    }
    return 0;
}

bool is_number(devkit::field_kind kind) {
    return kind == number8 || kind == number16 || kind == number32 || kind == number64;
}

json shown(const record_field& field, byte_view record) {
    const byte_view bytes = devkit::slice(record, field.offset, width_of(field, record.size()));
    switch (field.kind) {
        case mac:
            return devkit::mac_text(devkit::mac_at(record, field.offset));
        case ipv4:
            return devkit::ipv4_text(devkit::u32_at(record, field.offset));
        case ipv6:
            return devkit::ipv6_text(bytes);
        case key:
            return devkit::key_text(record, field.offset);
        case text:
            return std::string(bytes.begin(), std::find(bytes.begin(), bytes.end(), u8{0}));
        case vlans:
            return devkit::vlans_of(bytes);
        case devkit::field_kind::bytes:
            return devkit::hex_text(bytes);
        default:
            return number_of(field, record);
    }
}

void write_number(const record_field& field, u64 number, byte_buffer& into) {
    switch (field.kind) {
        case number8:
            return devkit::write_at(into, field.offset, static_cast<u8>(number));
        case number16:
            return devkit::write_at(into, field.offset, static_cast<u16>(number));
        case number32:
            return devkit::write_at(into, field.offset, static_cast<u32>(number));
        default:
            return devkit::write_at(into, field.offset, number);
    }
}

u64 largest(devkit::field_kind kind) {
    switch (kind) {
        case number8:
            return std::numeric_limits<u8>::max();
        case number16:
            return std::numeric_limits<u16>::max();
        default:
            return std::numeric_limits<u64>::max();
    }
}

void read_number(const record_field& field, json_fields& from, byte_buffer& into) {
    write_number(
        field, from.number_within(field.name, 0, field.min, std::min(field.max, largest(field.kind))), into);
}

void read_key(const record_field& field, json_fields& from, byte_buffer& into) {
    devkit::acl_identity key;
    int length = 0;
    const std::string written = from.text(field.name);
    const int count = std::sscanf(written.c_str(), "%u/%u/%u/%u%n", &key.vdev, &key.app_type, &key.acl_id,
                                  &key.acl_class, &length);
    if (count != 4 || static_cast<std::size_t>(length) != written.size()) {
        return from.refuse(field.name, "not an ACL key such as 0/3/101/1");
    }
    devkit::write_key(into, field.offset, key);
}

void read_text(const record_field& field, json_fields& from, byte_buffer& into) {
    const std::string written = from.text(field.name);
    if (written.size() >= field.bytes) {
        return from.refuse(field.name, "too long");
    }
    devkit::copy_at(into, field.offset, {reinterpret_cast<const u8*>(written.data()), written.size()});
}

void read_ipv6(const record_field& field, json_fields& from, byte_buffer& into) {
    const ip_address address = from.address(field.name);
    if (!address.is_ipv6) {
        return from.refuse(field.name, "not an IPv6 address");
    }
    devkit::copy_at(into, field.offset, address.bytes);
}

void read_vlans(const record_field& field, json_fields& from, byte_buffer& into) {
    for (const json& vlan : from.list(field.name)) {
        const auto number = json_fields::as_number(vlan);
        if (!number || !devkit::set_vlan(into, field.offset, *number)) {
            from.refuse(field.name, "not a list of VLAN ids");
        }
    }
}

void read_field(const record_field& field, json_fields& from, byte_buffer& into) {
    switch (field.kind) {
        case mac:
            return devkit::copy_at(into, field.offset, from.mac(field.name));
        case ipv4:
            return devkit::write_at(into, field.offset, from.ipv4(field.name));
        case ipv6:
            return read_ipv6(field, from, into);
        case key:
            return read_key(field, from, into);
        case text:
            return read_text(field, from, into);
        case vlans:
            return read_vlans(field, from, into);
        case devkit::field_kind::bytes: {
            const byte_buffer bytes = from.hex(field.name);
            into.resize(field.offset);
            into.insert(into.end(), bytes.begin(), bytes.end());
            return;
        }
        default:
            return read_number(field, from, into);
    }
}

byte_buffer from_fields(record_fields fields, std::size_t len, json_fields& from) {
    byte_buffer record(len, 0);
    for (const record_field& field : fields) {
        if (from.has(field.name)) {
            read_field(field, from, record);
        }
    }
    return record;
}

}  // namespace

u64 number_of(const record_field& field, byte_view record) {
    switch (field.kind) {
        case number8:
            return devkit::read_at<u8>(record, field.offset);
        case number16:
            return devkit::read_at<u16>(record, field.offset);
        case number32:
            return devkit::u32_at(record, field.offset);
        case number64:
            return devkit::u64_at(record, field.offset);
        default:
            return 0;
    }
}

std::string_view field_out_of_range(record_fields fields, byte_view record) {
    for (const record_field& field : fields) {
        const u64 number = number_of(field, record);
        if (is_number(field.kind) && (number < field.min || number > field.max)) {
            return field.name;
        }
    }
    return {};
}

std::string sort_key(const record_field& field, byte_view record) {
    const byte_view bytes = devkit::slice(record, field.offset, width_of(field, record.size()));
    std::string sorted(bytes.begin(), bytes.end());
    if (is_number(field.kind)) {
        std::reverse(sorted.begin(), sorted.end());
    }
    return sorted;
}

json show_record(record_fields fields, byte_view record) {
    json object = json::object();
    for (const record_field& field : fields) {
        object[std::string(field.name)] = shown(field, record);
    }
    json_fields again(object);
    if (from_fields(fields, record.size(), again) != devkit::to_bytes(record)) {
        object[std::string(whole_record)] = devkit::hex_text(record);
    }
    return object;
}

byte_buffer read_record(record_fields fields, std::size_t len, json_fields& from) {
    if (!from.has(whole_record)) {
        return from_fields(fields, len, from);
    }
    byte_buffer record = from.hex(whole_record);
    const bool any_length = !fields.empty() && fields.back().kind == devkit::field_kind::bytes;
    if (any_length ? record.size() < len : record.size() != len) {
        from.refuse(whole_record, fmt::format("not {} bytes", len));
        record.resize(len);
    }
    return record;
}

std::vector<std::string_view> field_names(record_fields fields) {
    std::vector<std::string_view> names;
    for (const record_field& field : fields) {
        names.push_back(field.name);
    }
    names.push_back(whole_record);
    return names;
}

}  // namespace scc::sccd
