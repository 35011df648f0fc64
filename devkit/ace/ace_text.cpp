#include "ace_text.h"

#include <array>

#include "records/words.h"

namespace scc::ace {
namespace {

// The C interface ends at a zero byte, which no valid text contains.
constexpr const char* zero_byte = "the text contains a zero byte";

bool has_zero(std::string_view text) {
    return text.find('\0') != std::string_view::npos;
}

}  // namespace

std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t min, std::uint64_t max) {
    return records::parse_number(text, min, max);
}

std::optional<mac_bytes> parse_mac(std::string_view text) {
    mac_bytes mac{};
    return records::parse_mac(text, mac.data()) ? std::optional(mac) : std::nullopt;
}

std::string print_mac(const mac_bytes& mac) {
    std::array<char, 18> text{};
    records::text_writer(text.data(), text.size()).add_mac(mac.data());
    return text.data();
}

std::optional<rule> parse_rule(std::string_view text, std::string& error) {
    if (has_zero(text)) {
        error = zero_byte;
        return std::nullopt;
    }
    rule read;
    scc_records_error problem{};
    if (scc_ace_parse_rule(std::string(text).c_str(), &read, &problem) != 0) {
        error = problem.text;
        return std::nullopt;
    }
    return read;
}

std::string print_rule(const rule& from) {
    std::array<char, SCC_ACE_TEXT_BYTES> text{};
    scc_ace_print_rule(&from, text.data(), text.size());
    return text.data();
}

std::optional<scc_ace_record> parse_ace(std::string_view text, text_error& error) {
    if (has_zero(text)) {
        error = {zero_byte, text.find('\0')};
        return std::nullopt;
    }
    scc_ace_record record{};
    scc_records_error problem{};
    if (scc_ace_parse(std::string(text).c_str(), &record, &problem) != 0) {
        error = {problem.text, problem.offset};
        return std::nullopt;
    }
    return record;
}

std::optional<scc_ace_record> parse_ace(std::string_view text, std::string& error) {
    text_error problem;
    auto record = parse_ace(text, problem);
    if (!record) {
        error = std::move(problem.text);
    }
    return record;
}

std::optional<std::string> print_ace(const scc_ace_record& record) {
    std::array<char, SCC_ACE_TEXT_BYTES> text{};
    if (scc_ace_print(&record, text.data(), text.size()) == 0) {
        return std::nullopt;
    }
    return text.data();
}

}  // namespace scc::ace
