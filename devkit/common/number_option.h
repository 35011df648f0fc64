// The numbers on the command lines of the programs: one form, one error.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "ace/ace_text.h"

namespace scc::devkit {

[[nodiscard]] inline std::string number_problem(std::string_view text, std::uint64_t min, std::uint64_t max) {
    return fmt::format("'{}' is not a number from {} to {}", text, min, max);
}

// For CLI::Option::transform. The number is passed on in decimal, since the parser takes a leading zero for
// octal.
[[nodiscard]] inline CLI::Validator number_within(std::uint64_t min, std::uint64_t max) {
    const auto read = [min, max](std::string& text) -> std::string {
        const auto value = ace::parse_number(text, min, max);
        if (!value) {
            return number_problem(text, min, max);
        }
        text = fmt::format("{}", *value);
        return {};
    };
    return CLI::Validator(read, fmt::format("[{}..{}]", min, max), "number");
}

}  // namespace scc::devkit
