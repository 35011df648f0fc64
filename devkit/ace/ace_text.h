// The text of rules and ACEs as C++ strings. The grammar is in scc_records.h. What print_* writes,
// parse_* reads back to the same rule. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ace_layout.h"

namespace scc::ace {

// Parses a number, decimal or with 0x, within [min, max].
[[nodiscard]] std::optional<std::uint64_t> parse_number(std::string_view text, std::uint64_t min,
                                                        std::uint64_t max);

[[nodiscard]] std::optional<mac_bytes> parse_mac(std::string_view text);
[[nodiscard]] std::string print_mac(const mac_bytes& mac);

// What is wrong with a text, and at which byte of it.
struct text_error {
    std::string text;
    std::size_t offset = 0;
};

// Parses a rule without sequence number and id. On failure `error` says what is wrong.
[[nodiscard]] std::optional<rule> parse_rule(std::string_view text, std::string& error);
[[nodiscard]] std::string print_rule(const rule& from);

// Parses a whole ACE. The sequence number defaults to 0, the id to the sequence number.
[[nodiscard]] std::optional<scc_ace_record> parse_ace(std::string_view text, text_error& error);
[[nodiscard]] std::optional<scc_ace_record> parse_ace(std::string_view text, std::string& error);
// Nothing if the record holds none of the devkit's rules.
[[nodiscard]] std::optional<std::string> print_ace(const scc_ace_record& record);

}  // namespace scc::ace
