// Parses and prints the text file of ACLs.
#include "acl_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

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
    line_error(std::size_t at, const std::string& text) : std::runtime_error(text), offset(at) {}
    std::size_t offset;  // of the faulty word in its line
};

struct file_word {
    std::string text;
    std::size_t offset = 0;
};

// The words of a line.
struct words : std::vector<file_word> {
    std::size_t end = 0;  // where a missing word would stand
};

// The line without its comment; a "#" between quotes begins none.
std::string without_comment(const std::string& line) {
    bool is_quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') {
            is_quoted = !is_quoted;
        } else if (line[i] == '#' && !is_quoted) {
            return line.substr(0, i);
        }
    }
    // An open quote ends nothing: the comment is found as if there were none.
    return is_quoted ? line.substr(0, line.find('#', line.rfind('"'))) : line;
}

words split(const std::string& line) {
    constexpr std::string_view blanks = " \t\r\v\f";
    words all;
    for (auto begin = line.find_first_not_of(blanks); begin != std::string::npos;
         begin = line.find_first_not_of(blanks, begin)) {
        const auto end = std::min(line.find_first_of(blanks, begin), line.size());
        all.push_back({line.substr(begin, end - begin), begin});
        all.end = end;
        begin = end;
    }
    return all;
}

std::uint32_t number_of(const file_word& word, std::string_view what, std::uint64_t min, std::uint64_t max) {
    const auto value = ace::parse_number(word.text, min, max);
    if (!value) {
        throw line_error(word.offset,
                         fmt::format("{} '{}' is not a number from {} to {}", what, word.text, min, max));
    }
    return static_cast<std::uint32_t>(*value);
}

// The "name value" pairs after a line's first words, each at most once.
class named_values {
  public:
    named_values(const words& line, std::size_t begin, std::initializer_list<std::string_view> known) {
        for (std::size_t i = begin; i < line.size(); i += 2) {
            const auto& [name, offset] = line[i];
            if (std::find(known.begin(), known.end(), name) == known.end()) {
                throw line_error(offset, fmt::format("unknown word '{}'", name));
            }
            if (i + 1 == line.size()) {
                throw line_error(line.end, fmt::format("'{}' needs a value", name));
            }
            if (!values_.emplace(name, line[i + 1]).second) {
                throw line_error(offset, fmt::format("'{}' is given twice", name));
            }
        }
    }
    [[nodiscard]] bool has(const std::string& name) const { return values_.count(name) != 0; }
    // Null if the value is not given.
    [[nodiscard]] const file_word* find(const std::string& name) const {
        const auto found = values_.find(name);
        return found == values_.end() ? nullptr : &found->second;
    }
    [[nodiscard]] std::uint32_t number(const std::string& name, std::uint32_t otherwise, std::uint64_t min,
                                       std::uint64_t max) const {
        const file_word* const word = find(name);
        return word == nullptr ? otherwise : number_of(*word, name, min, max);
    }

  private:
    std::map<std::string, file_word> values_;
};

std::uint32_t acl_id_of(const words& line) {
    if (line.size() < 2) {
        throw line_error(line.end, "the ACL id is missing");
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
            throw line_error(line[1].offset, fmt::format("ACL {} of type {} already stands in line {}",
                                                         acl_id, made.key.app_type, other.line));
        }
    }
    return made;
}

scc_ace_record raw_ace(const words& line) {
    scc_ace_record record{};
    record.sn = number_of(line[0], "sequence number", 0, UINT32_MAX);
    const auto bytes = line.size() > 2 ? devkit::parse_hex(line[2].text) : std::nullopt;
    if (!bytes || bytes->size() > sizeof record - raw_begin) {
        throw line_error(line.size() > 2 ? line[2].offset : line.end,
                         "'raw' needs the record's bytes from offset 16 on in hexadecimal pairs");
    }
    const std::uint32_t sn = record.sn;
    std::memcpy(reinterpret_cast<std::uint8_t*>(&record) + raw_begin, bytes->data(), bytes->size());
    record.sn = sn;
    record.ace_id = named_values(line, 3, {"id"}).number("id", sn, 0, UINT32_MAX);
    return record;
}

std::uint32_t next_sn(const file_acl& within, std::size_t offset) {
    std::uint32_t highest = 0;
    for (const file_ace& each : within.aces) {
        highest = std::max(highest, each.record.sn);
    }
    if (highest > UINT32_MAX - sn_step) {
        throw line_error(offset, "no sequence number is left: give one");
    }
    return highest / sn_step * sn_step + sn_step;
}

scc_ace_record ace_line(const words& line, const std::string& text, const file_acl& within) {
    if (line.size() > 1 && line[1].text == "raw") {
        return raw_ace(line);
    }
    const bool has_sn = line[0].text[0] >= '0' && line[0].text[0] <= '9';
    const std::string number = has_sn ? std::string() : fmt::format("{} ", next_sn(within, line[0].offset));
    ace::text_error error;
    const auto ace = ace::parse_ace(number + text, error);
    if (!ace) {
        throw line_error(error.offset - std::min(error.offset, number.size()), error.text);
    }
    return *ace;
}

const scc_acl_key& applied_key(const acl_file& file, std::uint32_t acl_id, std::size_t offset) {
    const scc_acl_key* found = nullptr;
    for (const file_acl& each : file.acls) {
        if (each.key.acl_id != acl_id) {
            continue;
        }
        if (found != nullptr) {
            throw line_error(offset, fmt::format("more than one ACL {}: 'type' must say which", acl_id));
        }
        found = &each.key;
    }
    if (found == nullptr) {
        throw line_error(offset, fmt::format("no ACL {} above: 'type' must be given", acl_id));
    }
    return *found;
}

// The line does not state the class; it is that of the ACL in the file.
scc_acl_key with_its_class(const acl_file& file, const scc_acl_key& key) {
    const auto known = std::find_if(file.acls.begin(), file.acls.end(),
                                    [&](const file_acl& each) { return name_of(each.key) == name_of(key); });
    return known == file.acls.end() ? key : known->key;
}

std::uint32_t direction_of(const file_word* word) {
    if (word == nullptr || word->text == "in") {
        return 0;
    }
    if (word->text == "out") {
        return 1;
    }
    throw line_error(word->offset, fmt::format("direction '{}' is neither in nor out", word->text));
}

scc_acl_apply_record apply_line(const words& line, const acl_file& so_far) {
    const std::uint32_t acl_id = acl_id_of(line);
    const named_values values(line, 2, {"type", "vdev", "ifx", "direction", "apply-type"});
    if (!values.has("ifx")) {
        throw line_error(line.end, "'ifx' is missing");
    }
    scc_records_application made{};
    if (values.has("type") || values.has("vdev")) {
        made.key = with_its_class(so_far, {values.number("vdev", 0, 0, UINT32_MAX),
                                           values.number("type", 1, 1, limits::app_type_max), acl_id, 0});
    } else {
        made.key = applied_key(so_far, acl_id, line[1].offset);
    }
    made.ifx = values.number("ifx", 0, 0, UINT32_MAX);
    made.direction = direction_of(values.find("direction"));
    made.apply_type = values.number("apply-type", 0, 0, limits::app_type_max);
    scc_acl_apply_record record{};
    (void)scc_records_encode_application(&made, &record, nullptr);  // each value was checked
    return record;
}

// What a file says so far, and the lines of its ACEs, to find one that is given twice.
struct parse_state {
    acl_file file;
    std::map<std::pair<std::uint32_t, std::uint32_t>, unsigned> ace_lines;  // of the last ACL
};

void add_ace(parse_state& into, const file_ace& ace, std::size_t offset) {
    const auto [known, is_new] = into.ace_lines.try_emplace({ace.record.sn, ace.record.ace_id}, ace.line);
    if (!is_new) {
        throw line_error(offset, fmt::format("an ACE {} with id {} already stands in line {}", ace.record.sn,
                                             ace.record.ace_id, known->second));
    }
    into.file.acls.back().aces.push_back(ace);
}

void read_line(const std::string& whole, unsigned number, parse_state& state) {
    acl_file& into = state.file;
    const std::string text = without_comment(whole);
    const words line = split(text);
    if (line.empty()) {
        return;
    }
    if (line[0].text == "acl") {
        file_acl made = acl_line(line, into);
        made.line = number;
        into.acls.push_back(std::move(made));
        state.ace_lines.clear();
    } else if (line[0].text == "apply") {
        into.applications.push_back({number, apply_line(line, into)});
    } else {
        if (into.acls.empty()) {
            throw line_error(line[0].offset, "an ACE needs an 'acl' line above it");
        }
        add_ace(state, {number, ace_line(line, text, into.acls.back())}, line[0].offset);
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

}  // namespace

std::size_t acl_file::size() const {
    std::size_t count = acls.size() + applications.size();
    for (const file_acl& each : acls) {
        count += each.aces.size();
    }
    return count;
}

// A rule is written as text only if the text reproduces the whole record.
std::string ace_line_text(const scc_ace_record& record) {
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

std::string acl_line_text(const scc_acl_key& key) {
    std::string text = fmt::format("acl {} type {} class {}", key.acl_id, key.app_type, key.acl_class);
    if (key.vdev_id != 0) {
        text += fmt::format(" vdev {}", key.vdev_id);
    }
    return text;
}

std::string apply_line_text(const scc_acl_apply_record& record) {
    scc_records_application from{};
    (void)scc_records_decode_application(&record, &from);
    std::string text = fmt::format("apply {} type {} vdev {} ifx {}", from.key.acl_id, from.key.app_type,
                                   from.key.vdev_id, from.ifx);
    if (from.direction == 1) {
        text += " direction out";
    }
    if (from.apply_type != 0 && from.apply_type != from.key.app_type) {
        text += fmt::format(" apply-type {}", from.apply_type);
    }
    return text;
}

std::optional<acl_file> parse_acl_file(std::string_view text, std::vector<file_error>& errors) {
    parse_state state;
    std::istringstream stream{std::string(text)};
    unsigned number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        try {
            read_line(line, number, state);
        } catch (const line_error& problem) {
            errors.push_back({number, static_cast<unsigned>(problem.offset + 1), problem.what()});
        }
    }
    if (!errors.empty()) {
        return std::nullopt;
    }
    return std::move(state.file);
}

std::string print_acl_file(const acl_file& from) {
    std::string text;
    const auto end = std::back_inserter(text);
    for (const file_acl& each : from.acls) {
        text += acl_line_text(each.key) + '\n';
        for (const file_ace& ace : each.aces) {
            fmt::format_to(end, "  {}\n", ace_line_text(ace.record));
        }
    }
    for (const file_application& each : from.applications) {
        text += apply_line_text(each.record) + '\n';
    }
    return text;
}

}  // namespace scc::ctl
