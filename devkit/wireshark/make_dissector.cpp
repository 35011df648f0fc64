// make_dissector PROGRAM.lua OUTPUT.lua: writes the Wireshark dissector, which is the message table as Lua
// tables followed by the program.
//
// A field's filter is "scc." and its name, whatever message it is in. Fields with the same name share a
// filter, so that all of them must be of one kind as Wireshark sees it; the generator fails if they are not.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/messages.h"

namespace {

using scc::devkit::element_list;
using scc::devkit::field_kind;
using scc::devkit::field_list;
using scc::devkit::message_field;
using scc::devkit::message_route;
using scc::devkit::message_type;
using scc::devkit::value_layout;
using scc::devkit::value_name;

struct kind_row {
    std::string_view constructor;  // of ProtoField
    std::string_view family;       // of types that may share a filter
    std::string_view adder;        // in the program's table
    std::size_t bytes;             // 0: as the field says
};

kind_row row_of(field_kind kind) {
    switch (kind) {
        case field_kind::number8:
            return {"uint8", "number", "number", 1};
        case field_kind::number16:
            return {"uint16", "number", "number", 2};
        case field_kind::number32:
            return {"uint32", "number", "number", 4};
        case field_kind::number64:
            return {"uint64", "number", "number", 8};
        case field_kind::mac:
            return {"ether", "mac", "plain", 6};
        case field_kind::ipv4:
            return {"ipv4", "ipv4", "plain", 4};
        case field_kind::ipv6:
            return {"ipv6", "ipv6", "plain", 16};
        case field_kind::address:
            return {"ipv4", "ipv4", "address", 16};
        case field_kind::key:
            return {"string", "text", "key", scc::record::acl_key};
        case field_kind::text:
            return {"string", "text", "text", 0};
        case field_kind::bytes:
            return {"bytes", "bytes", "plain", 0};
        case field_kind::vlans:
            return {"string", "text", "vlans", 0};
    }
    throw std::logic_error("a kind without a row");
}

// The ProtoFields, each once; the text refers to them by number.
class dissector_tables {
  public:
    std::string layouts(const message_type& type) {
        std::vector<std::string> rows;
        for (const value_layout& each : type.layouts) {
            rows.push_back(fmt::format("{{only_bytes = {}, fields = {}{}}}",
                                       each.only_bytes == 0 ? "nil" : std::to_string(each.only_bytes),
                                       list(each.fields), elements(each.elements)));
        }
        return fmt::format("{{{}}}", fmt::join(rows, ", "));
    }
    [[nodiscard]] const std::vector<std::string>& proto_fields() const { return made_; }

  private:
    std::string elements(const element_list& each) {
        if (each.name.empty()) {
            return {};
        }
        return fmt::format(", elements = {{name = \"{}\", offset = {}, bytes = {}, fields = {}}}", each.name,
                           each.offset, each.element_bytes, list(each.fields));
    }
    std::string list(field_list fields) {
        std::vector<std::string> rows;
        for (const message_field& each : fields) {
            rows.push_back(row(each));
        }
        return fmt::format("{{{}}}", fmt::join(rows, ", "));
    }
    std::string row(const message_field& field) {
        const kind_row kind = row_of(field.kind);
        std::vector<std::string> parts{proto_field(field.name, field.name, kind, field.names)};
        if (field.kind == field_kind::address) {
            parts.push_back(
                proto_field(fmt::format("{}6", field.name), field.name, row_of(field_kind::ipv6), {}));
        }
        if (field.kind == field_kind::key) {
            for (const std::string_view part : {"vdev", "type", "acl", "class"}) {
                parts.push_back(proto_field(fmt::format("{}.{}", field.name, part), part,
                                            row_of(field_kind::number32), {}));
            }
        }
        std::string text =
            fmt::format("{{kind = \"{}\", offset = {}, bytes = {}, parts = {{{}}}", kind.adder, field.offset,
                        kind.bytes != 0 ? kind.bytes : field.bytes, fmt::join(parts, ", "));
        if (field.kind == field_kind::address) {
            text += fmt::format(", family_at = {}", field.family_at);
        }
        return text + "}";
    }
    std::string proto_field(std::string_view filter, std::string_view label, const kind_row& kind,
                            std::span<const value_name> names) {
        const auto known = families_.try_emplace(std::string(filter), kind.family).first;
        if (known->second != kind.family) {
            throw std::runtime_error(fmt::format("field {} is a {} in one message and a {} in another",
                                                 filter, known->second, kind.family));
        }
        std::string text = fmt::format("ProtoField.{}(\"scc.{}\", \"{}\"", kind.constructor, filter, label);
        if (!names.empty()) {
            text += fmt::format(", base.DEC, {}", value_table(names));
        }
        text += ")";
        const auto found = std::find(made_.begin(), made_.end(), text);
        const auto index = found - made_.begin() + 1;
        if (found == made_.end()) {
            made_.push_back(text);
        }
        return fmt::format("fields[{}]", index);
    }
    static std::string value_table(std::span<const value_name> names) {
        std::vector<std::string> rows;
        std::map<scc::u64, bool> seen;  // the first name of a number is the one that is shown
        for (const value_name& each : names) {
            if (seen.emplace(each.value, true).second) {
                rows.push_back(fmt::format("[{}] = \"{}\"", each.value, each.name));
            }
        }
        return fmt::format("{{{}}}", fmt::join(rows, ", "));
    }

    std::map<std::string, std::string_view> families_;
    std::vector<std::string> made_;
};

std::string_view route_name(message_route route) {
    switch (route) {
        case message_route::request:
            return "request";
        case message_route::to_client:
            return "to_client";
        case message_route::operation:
            return "operation";
        case message_route::report:
            return "report";
    }
    throw std::logic_error("a route without a name");
}

std::string tables() {
    dissector_tables made;
    std::string messages = "local messages = {request = {}, to_client = {}, operation = {}, report = {}}\n";
    for (const message_type& type : scc::devkit::message_types()) {
        messages += fmt::format("messages.{}[{}] = {{name = \"{}\", layouts = {}}}\n", route_name(type.route),
                                type.number, type.name, made.layouts(type));
    }
    return fmt::format("-- Generated from the daemon's message table.\nlocal fields = {{\n    {}\n}}\n{}\n",
                       fmt::join(made.proto_fields(), ",\n    "), messages);
}

void make(const std::string& program, const std::string& output) {
    std::ifstream source(program);
    if (!source) {
        throw std::runtime_error(program + ": cannot be read");
    }
    const std::string text{std::istreambuf_iterator<char>(source), {}};
    std::ofstream made(output);
    made << tables() << text;
    made.close();
    if (!made) {
        throw std::runtime_error(output + ": cannot be written");
    }
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 3) {
        std::fputs("usage: make_dissector PROGRAM.lua OUTPUT.lua\n", stderr);
        return 2;
    }
    make(argv[1], argv[2]);
    return 0;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "make_dissector: %s\n", problem.what());
    return 1;
}
