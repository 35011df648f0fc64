// Parses and prints the text file of ACLs.
#include "acl_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

#include "ace_text.h"
#include "acl_book.h"
#include "common/bytes.h"
#include "common/records.h"
#include "msg/protocol.h"

namespace scc::ctl {
namespace {

constexpr std::uint32_t sn_step = 10;
constexpr std::size_t raw_begin = offsetof(scc_ace_record, match);

struct line_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using words = std::vector<std::string>;

words split(const std::string& line) {
    std::istringstream stream(line);
    words all;
    for (std::string word; stream >> word;) {
        all.push_back(word);
    }
    return all;
}

std::uint32_t number_of(const std::string& word, std::string_view what, std::uint64_t min,
                        std::uint64_t max) {
    const auto value = ace::parse_number(word, min, max);
    if (!value) {
        throw line_error(fmt::format("{} '{}' is not a number from {} to {}", what, word, min, max));
    }
    return static_cast<std::uint32_t>(*value);
}

// The "name value" pairs after a line's first words, each at most once.
class named_values {
  public:
    named_values(const words& line, std::size_t begin, std::initializer_list<std::string_view> known) {
        for (std::size_t i = begin; i < line.size(); i += 2) {
            if (std::find(known.begin(), known.end(), line[i]) == known.end()) {
                throw line_error(fmt::format("unknown word '{}'", line[i]));
            }
            if (i + 1 == line.size()) {
                throw line_error(fmt::format("'{}' needs a value", line[i]));
            }
            if (!values_.emplace(line[i], line[i + 1]).second) {
                throw line_error(fmt::format("'{}' is given twice", line[i]));
            }
        }
    }
    [[nodiscard]] bool has(const std::string& name) const { return values_.count(name) != 0; }
    [[nodiscard]] std::string text(const std::string& name, const std::string& otherwise) const {
        const auto found = values_.find(name);
        return found == values_.end() ? otherwise : found->second;
    }
    [[nodiscard]] std::uint32_t number(const std::string& name, std::uint32_t otherwise, std::uint64_t min,
                                       std::uint64_t max) const {
        const auto found = values_.find(name);
        return found == values_.end() ? otherwise : number_of(found->second, name, min, max);
    }

  private:
    std::map<std::string, std::string> values_;
};

std::uint32_t acl_id_of(const words& line) {
    if (line.size() < 2) {
        throw line_error("the ACL id is missing");
    }
    return number_of(line[1], "ACL id", 1, limits::acl_id_max);
}

file_acl acl_line(const words& line, const acl_file& so_far) {
    const std::uint32_t acl_id = acl_id_of(line);
    const named_values values(line, 2, {"type", "class", "vdev"});
    file_acl made;
    made.key = {values.number("vdev", 0, 0, UINT32_MAX), values.number("type", 1, 1, limits::app_type_max),
                acl_id, values.number("class", 0, 0, UINT32_MAX)};
    for (const file_acl& other : so_far.acls) {
        if (name_of(other.key) == name_of(made.key)) {
            throw line_error(fmt::format("ACL {} of type {} already stands in line {}", acl_id,
                                         made.key.app_type, other.line));
        }
    }
    return made;
}

scc_ace_record raw_ace(const words& line) {
    scc_ace_record record{};
    record.sn = number_of(line[0], "sequence number", 0, UINT32_MAX);
    const auto bytes = line.size() > 2 ? devkit::parse_hex(line[2]) : std::nullopt;
    if (!bytes || bytes->size() > sizeof record - raw_begin) {
        throw line_error("'raw' needs the record's bytes from offset 16 on in hexadecimal pairs");
    }
    const std::uint32_t sn = record.sn;
    std::memcpy(reinterpret_cast<std::uint8_t*>(&record) + raw_begin, bytes->data(), bytes->size());
    record.sn = sn;
    record.ace_id = named_values(line, 3, {"id"}).number("id", sn, 0, UINT32_MAX);
    return record;
}

std::uint32_t next_sn(const file_acl& within) {
    std::uint32_t highest = 0;
    for (const file_ace& each : within.aces) {
        highest = std::max(highest, each.record.sn);
    }
    if (highest > UINT32_MAX - sn_step) {
        throw line_error("no sequence number is left: give one");
    }
    return highest / sn_step * sn_step + sn_step;
}

scc_ace_record ace_line(const words& line, const std::string& text, const file_acl& within) {
    if (line.size() > 1 && line[1] == "raw") {
        return raw_ace(line);
    }
    const bool has_sn = line[0][0] >= '0' && line[0][0] <= '9';
    std::string error;
    const auto ace = ace::parse_ace(has_sn ? text : fmt::format("{} {}", next_sn(within), text), error);
    if (!ace) {
        throw line_error(error);
    }
    return *ace;
}

const scc_acl_key& applied_key(const acl_file& file, std::uint32_t acl_id) {
    const scc_acl_key* found = nullptr;
    for (const file_acl& each : file.acls) {
        if (each.key.acl_id != acl_id) {
            continue;
        }
        if (found != nullptr) {
            throw line_error(fmt::format("more than one ACL {}: 'type' must say which", acl_id));
        }
        found = &each.key;
    }
    if (found == nullptr) {
        throw line_error(fmt::format("no ACL {} above: 'type' must be given", acl_id));
    }
    return *found;
}

// The line does not state the class; it is that of the ACL in the file.
scc_acl_key with_its_class(const acl_file& file, const scc_acl_key& key) {
    const auto known = std::find_if(file.acls.begin(), file.acls.end(),
                                    [&](const file_acl& each) { return name_of(each.key) == name_of(key); });
    return known == file.acls.end() ? key : known->key;
}

std::uint32_t direction_of(const std::string& word) {
    if (word == "in") {
        return 0;
    }
    if (word == "out") {
        return 1;
    }
    throw line_error(fmt::format("direction '{}' is neither in nor out", word));
}

void put_u32(scc_acl_apply_record& record, std::size_t offset, std::uint32_t value) {
    std::memcpy(reinterpret_cast<std::uint8_t*>(&record) + offset, &value, sizeof value);
}

std::uint32_t get_u32(const scc_acl_apply_record& record, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, reinterpret_cast<const std::uint8_t*>(&record) + offset, sizeof value);
    return value;
}

scc_acl_apply_record apply_line(const words& line, const acl_file& so_far) {
    const std::uint32_t acl_id = acl_id_of(line);
    const named_values values(line, 2, {"type", "vdev", "ifx", "direction", "apply-type"});
    if (!values.has("ifx")) {
        throw line_error("'ifx' is missing");
    }
    scc_acl_apply_record record{};
    if (values.has("type") || values.has("vdev")) {
        record.key = with_its_class(so_far, {values.number("vdev", 0, 0, UINT32_MAX),
                                             values.number("type", 1, 1, limits::app_type_max), acl_id, 0});
    } else {
        record.key = applied_key(so_far, acl_id);
    }
    put_u32(record, devkit::apply_record::ifx, values.number("ifx", 0, 0, UINT32_MAX));
    put_u32(record, devkit::apply_record::direction, direction_of(values.text("direction", "in")));
    record.apply_type = values.number("apply-type", 0, 0, limits::app_type_max);
    return record;
}

void read_line(const std::string& text, unsigned number, acl_file& into) {
    const words line = split(text.substr(0, text.find('#')));
    if (line.empty()) {
        return;
    }
    if (line[0] == "acl") {
        file_acl made = acl_line(line, into);
        made.line = number;
        into.acls.push_back(std::move(made));
    } else if (line[0] == "apply") {
        into.applications.push_back({number, apply_line(line, into)});
    } else {
        if (into.acls.empty()) {
            throw line_error("an ACE needs an 'acl' line above it");
        }
        file_acl& within = into.acls.back();
        within.aces.push_back({number, ace_line(line, text.substr(0, text.find('#')), within)});
    }
}

std::string raw_text(const scc_ace_record& record) {
    scc_ace_record copy = record;
    copy.sn = 0;
    copy.ace_id = 0;
    const auto* begin = reinterpret_cast<const std::uint8_t*>(&copy) + raw_begin;
    std::size_t len = sizeof copy - raw_begin;
    while (len > 1 && begin[len - 1] == 0) {
        --len;
    }
    std::string text = fmt::format("{} raw {}", record.sn, devkit::hex_text({begin, len}));
    if (record.ace_id != record.sn) {
        text += fmt::format(" id {}", record.ace_id);
    }
    return text;
}

// A rule is written as text only if the text reproduces the whole record.
std::string ace_text(const scc_ace_record& record) {
    const auto text = ace::print_ace(record);
    std::string error;
    if (!text) {
        return raw_text(record);
    }
    const auto again = ace::parse_ace(*text, error);
    scc_ace_record plain = record;
    plain.link = {};
    const bool whole = again && std::memcmp(&*again, &plain, sizeof plain) == 0;
    return whole ? *text : raw_text(record);
}

std::string apply_text(const scc_acl_apply_record& record) {
    std::string text = fmt::format("apply {} type {} vdev {} ifx {}", record.key.acl_id, record.key.app_type,
                                   record.key.vdev_id, get_u32(record, devkit::apply_record::ifx));
    if (get_u32(record, devkit::apply_record::direction) == 1) {
        text += " direction out";
    }
    if (record.apply_type != 0 && record.apply_type != record.key.app_type) {
        text += fmt::format(" apply-type {}", record.apply_type);
    }
    return text;
}

}  // namespace

std::size_t acl_file::size() const {
    std::size_t count = acls.size() + applications.size();
    for (const file_acl& each : acls) {
        count += each.aces.size();
    }
    return count;
}

std::optional<acl_file> parse_acl_file(std::string_view text, std::vector<file_error>& errors) {
    acl_file file;
    std::istringstream stream{std::string(text)};
    unsigned number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        try {
            read_line(line, number, file);
        } catch (const line_error& problem) {
            errors.push_back({number, problem.what()});
        }
    }
    if (!errors.empty()) {
        return std::nullopt;
    }
    return file;
}

std::string print_acl_file(const acl_file& from) {
    std::string text;
    const auto end = std::back_inserter(text);
    for (const file_acl& each : from.acls) {
        fmt::format_to(end, "acl {} type {} class {}", each.key.acl_id, each.key.app_type,
                       each.key.acl_class);
        if (each.key.vdev_id != 0) {
            fmt::format_to(end, " vdev {}", each.key.vdev_id);
        }
        text += '\n';
        for (const file_ace& ace : each.aces) {
            fmt::format_to(end, "  {}\n", ace_text(ace.record));
        }
    }
    for (const file_application& each : from.applications) {
        text += apply_text(each.record) + '\n';
    }
    return text;
}

}  // namespace scc::ctl
