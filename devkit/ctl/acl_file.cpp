// Parses and prints the text file of ACLs.
#include "acl_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "ace_text.h"
#include "acl_book.h"
#include "common/bytes.h"
#include "common/records.h"
#include "msg/protocol.h"
#include "records/names.h"

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

constexpr std::string_view blanks = " \t\r\v\f";

words split(const std::string& line) {
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

// ---- time ranges with a name ---------------------------------------------------------------------

// A record has room for the times of a range, but not for its name: where an ACE names one, its times are put
// in the name's place.
struct time_range {
    unsigned line = 0;
    std::string times;
};
using time_ranges = std::map<std::string, time_range>;

// Days and times are not names, so that "time-range mon-fri 08:00-18:00" has one meaning.
bool is_range_name(std::string_view word) {
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    const auto may_follow = [&](char c) {
        return is_letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '_';
    };
    return !word.empty() && is_letter(word[0]) && std::all_of(word.begin(), word.end(), may_follow) &&
           !records::day_named(word.substr(0, word.find('-')));
}

// The name after "time-range", which is neither in quotes nor a remark itself. Null if there is none.
const file_word* named_range_of(const words& line) {
    bool is_quoted = false;
    std::string_view before;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const file_word& each = line[i];
        if (before == "time-range" && is_range_name(each.text)) {
            return &each;
        }
        const bool was_quoted = is_quoted || each.text.starts_with('"');
        is_quoted = is_quoted != (std::count(each.text.begin(), each.text.end(), '"') % 2 != 0);
        before = was_quoted || before == "remark" ? std::string_view() : std::string_view(each.text);
    }
    return nullptr;
}

void add_time_range(time_ranges& into, const words& line, unsigned number) {
    if (line.size() < 2) {
        throw line_error(line.end, "the name of the time range is missing");
    }
    const auto& [name, offset] = line[1];
    if (!is_range_name(name)) {
        throw line_error(
            offset, fmt::format("'{}' is no name: it needs letters, digits, '-' and '_', and begins with "
                                "a letter, but not with a day",
                                name));
    }
    if (const auto known = into.find(name); known != into.end()) {
        throw line_error(offset,
                         fmt::format("time range '{}' already stands in line {}", name, known->second.line));
    }
    const bool has_days = line.size() > 2 && line[2].text.find(':') == std::string::npos;
    const std::size_t end = has_days ? 4 : 3;
    if (line.size() > end) {
        throw line_error(line[end].offset,
                         fmt::format("'{}' follows the end of the time range", line[end].text));
    }
    std::string times;
    for (std::size_t i = 2; i < line.size(); ++i) {
        times += (i == 2 ? "" : " ") + line[i].text;
    }
    const std::string before = "permit ether time-range ";
    ace::text_error error;
    const auto parsed = ace::parse_ace(before + times, error);
    if (!parsed) {
        const bool is_first = error.offset < before.size() + (line.size() > 2 ? line[2].text.size() : 0);
        const std::size_t at = line.size() < 3 ? line.end : line[is_first ? 2 : line.size() - 1].offset;
        throw line_error(at, error.text);
    }
    into.emplace(name, time_range{number, times});
}

// ---- the lines of an ACL -------------------------------------------------------------------------

// The text of an ACE with the times of the range that it names. What stands after them has moved.
struct expanded_text {
    std::string text;
    std::size_t name_begin = 0;
    std::size_t name_bytes = 0;
    std::size_t times_bytes = 0;

    [[nodiscard]] std::size_t offset_in_line(std::size_t offset) const {
        if (offset >= name_begin + times_bytes) {
            return offset - times_bytes + name_bytes;
        }
        return std::min(offset, name_begin);
    }
};

expanded_text expanded(const words& line, const std::string& text, const time_ranges& ranges) {
    const file_word* const name = named_range_of(line);
    if (name == nullptr) {
        return {text, text.size(), 0, 0};
    }
    const auto range = ranges.find(name->text);
    if (range == ranges.end()) {
        throw line_error(name->offset, fmt::format("no time range '{}' above", name->text));
    }
    std::string with_times = text;
    with_times.replace(name->offset, name->text.size(), range->second.times);
    return {with_times, name->offset, name->text.size(), range->second.times.size()};
}

scc_ace_record ace_line(const words& line, const std::string& text, const file_acl& within,
                        const time_ranges& ranges) {
    if (line.size() > 1 && line[1].text == "raw") {
        return raw_ace(line);
    }
    const bool has_sn = line[0].text[0] >= '0' && line[0].text[0] <= '9';
    const std::string number = has_sn ? std::string() : fmt::format("{} ", next_sn(within, line[0].offset));
    const expanded_text whole = expanded(line, text, ranges);
    ace::text_error error;
    const auto ace = ace::parse_ace(number + whole.text, error);
    if (!ace) {
        const std::size_t offset = error.offset - std::min(error.offset, number.size());
        throw line_error(whole.offset_in_line(offset), error.text);
    }
    return *ace;
}

// A remark on a line of its own. It belongs to the ACE that follows, since an ACE without a rule would be one
// that no frame matches.
struct remark_line {
    unsigned line = 0;
    std::size_t offset = 0;
    scc_ace_rule rule{};  // with the remark
};

// Where the line goes on after the remark's word or quotes; npos if it does not.
std::size_t end_of_remark(const words& line, const std::string& text) {
    if (line.size() < 2) {
        return std::string::npos;
    }
    const file_word& value = line[1];
    const bool is_quoted = value.text[0] == '"';
    const std::size_t last =
        is_quoted ? text.find('"', value.offset + 1) : value.offset + value.text.size() - 1;
    return last == std::string::npos ? last : text.find_first_not_of(blanks, last + 1);
}

remark_line read_remark(const words& line, const std::string& text, unsigned number) {
    const std::string before = "permit ether ";
    const std::size_t begin = line[0].offset;
    const std::size_t rest = end_of_remark(line, text);
    if (rest != std::string::npos) {
        throw line_error(rest, "the line goes on after its remark");
    }
    ace::text_error error;
    const auto parsed = ace::parse_ace(before + text.substr(begin), error);
    if (!parsed) {
        throw line_error(begin + error.offset - std::min(error.offset, before.size()), error.text);
    }
    remark_line made{number, begin, {}};
    (void)scc_ace_decode(&*parsed, &made.rule);
    return made;
}

void set_remark(scc_ace_record& record, const remark_line& remark, std::size_t offset) {
    scc_ace_rule rule{};
    if (scc_ace_decode(&record, &rule) != 0) {
        throw line_error(offset,
                         fmt::format("no rule, so it cannot have the remark of line {}", remark.line));
    }
    if (rule.remark[0] != '\0') {
        throw line_error(offset, fmt::format("two remarks: the other one stands in line {}", remark.line));
    }
    std::memcpy(rule.remark, remark.rule.remark, sizeof rule.remark);
    (void)scc_ace_encode(&rule, &record, nullptr);
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
    time_ranges ranges;
    std::optional<remark_line> remark;                                      // waits for its ACE
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

void read_ace(const words& line, const std::string& text, unsigned number, parse_state& state) {
    const std::size_t offset = line[0].offset;
    if (state.file.acls.empty()) {
        throw line_error(offset, "an ACE needs an 'acl' line above it");
    }
    if (line[0].text == "remark") {
        state.remark = read_remark(line, text, number);
        return;
    }
    const auto remark = std::exchange(state.remark, std::nullopt);
    file_ace ace{number, ace_line(line, text, state.file.acls.back(), state.ranges)};
    if (remark) {
        set_remark(ace.record, *remark, offset);
    }
    add_ace(state, ace, offset);
}

void read_line(const words& line, const std::string& text, unsigned number, parse_state& state) {
    acl_file& into = state.file;
    if (line[0].text == "acl") {
        file_acl made = acl_line(line, into);
        made.line = number;
        into.acls.push_back(std::move(made));
        state.ace_lines.clear();
    } else if (line[0].text == "apply") {
        into.applications.push_back({number, apply_line(line, into)});
    } else if (line[0].text == "time-range") {
        add_time_range(state.ranges, line, number);
    } else {
        read_ace(line, text, number, state);
    }
}

// The remark has found no ACE where one of these words begins a line, or at the end.
bool ends_remark(const words& line) {
    constexpr std::array<std::string_view, 4> others = {"acl", "apply", "time-range", "remark"};
    return std::find(others.begin(), others.end(), line[0].text) != others.end();
}

void refuse_lonely_remark(parse_state& state, std::vector<file_error>& errors) {
    if (const auto remark = std::exchange(state.remark, std::nullopt)) {
        errors.push_back(
            {remark->line, static_cast<unsigned>(remark->offset + 1), "no ACE follows the remark"});
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
        const std::string content = without_comment(line);
        const words parts = split(content);
        if (parts.empty()) {
            continue;
        }
        if (ends_remark(parts)) {
            refuse_lonely_remark(state, errors);
        }
        try {
            read_line(parts, content, number, state);
        } catch (const line_error& problem) {
            errors.push_back({number, static_cast<unsigned>(problem.offset + 1), problem.what()});
        }
    }
    refuse_lonely_remark(state, errors);
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
