#include "linux/interface_map.h"

#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>

#include "ace/ace_text.h"

namespace scc::kernel {
namespace {

constexpr u32 number_max = 0xFFFFFFFF;
constexpr u32 rate_max = 1'000'000;

// Takes the next word off the line.
std::string_view next_word(std::string_view& line) {
    const std::size_t begin = std::min(line.find_first_not_of(" \t\r"), line.size());
    const std::size_t end = std::min(line.find_first_of(" \t\r", begin), line.size());
    const std::string_view word = line.substr(begin, end - begin);
    line.remove_prefix(end);
    return word;
}

std::optional<u32> number_of(std::string_view word, u32 min, u32 max) {
    u32 number = 0;
    const auto [end, problem] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (problem != std::errc() || end != word.data() + word.size() || number < min || number > max) {
        return std::nullopt;
    }
    return number;
}

// What the kernel accepts and JSON need not escape.
bool is_interface_name(std::string_view name) {
    return !name.empty() && name.size() < IF_NAMESIZE && name != "." && name != ".." &&
           name.find_first_of("/:\"\\ ") == std::string_view::npos;
}

std::string take_interface(std::string_view line, interface_map& map) {
    const auto ifx = number_of(next_word(line), 1, number_max);
    const std::string_view name = next_word(line);
    const std::string_view option = next_word(line);
    if (!ifx || !is_interface_name(name) || !next_word(line).empty()) {
        return "needs an index from 1 on and the name of an interface";
    }
    if (!option.empty() && option != "router") {
        return fmt::format("\"{}\" is not \"router\"", option);
    }
    for (const auto& [other, interface] : map.interfaces) {
        if (interface.name == name) {
            return fmt::format("{} is interface {} already", name, other);
        }
    }
    if (!map.interfaces.try_emplace(*ifx, mapped_interface{std::string(name), !option.empty()}).second) {
        return fmt::format("interface {} is there twice", *ifx);
    }
    return {};
}

std::string take_protection(std::string_view line, interface_map& map) {
    const auto type = number_of(next_word(line), 0, number_max);
    const auto rate = number_of(next_word(line), 1, rate_max);
    if (!type || !rate) {
        return fmt::format("needs a type and a rate from 1 to {}", rate_max);
    }
    std::string problem;
    const auto rule = ace::parse_rule("deny" + std::string(line), problem);
    if (!rule) {
        return problem;
    }
    if (!map.protections.try_emplace(*type, protection{*rate, *rule}).second) {
        return fmt::format("CPU protection {} is there twice", *type);
    }
    return {};
}

std::string take_line(std::string_view line, interface_map& map) {
    line = line.substr(0, line.find('#'));
    const std::string_view keyword = next_word(line);
    if (keyword.empty()) {
        return {};
    }
    if (keyword == "ifx") {
        return take_interface(line, map);
    }
    if (keyword == "cpp") {
        return take_protection(line, map);
    }
    return fmt::format("\"{}\" is neither \"ifx\" nor \"cpp\"", keyword);
}

}  // namespace

std::optional<interface_map> parse_interface_map(std::string_view text, std::string& error) {
    interface_map map;
    for (unsigned number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string problem = take_line(text.substr(0, end), map);
        if (!problem.empty()) {
            error = fmt::format("line {}: {}", number, problem);
            return std::nullopt;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (map.interfaces.empty()) {
        error = "no interface";
        return std::nullopt;
    }
    return map;
}

std::optional<interface_map> read_interface_map(const std::string& path, std::string& error) {
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    if (!file.is_open() || file.bad()) {
        error = fmt::format("{}: {}", path, std::strerror(errno));
        return std::nullopt;
    }
    std::optional<interface_map> map = parse_interface_map(text, error);
    if (!map) {
        error = path + ": " + error;
    }
    return map;
}

std::string missing_interface(const interface_map& map) {
    for (const auto& [ifx, interface] : map.interfaces) {
        if (if_nametoindex(interface.name.c_str()) == 0) {
            return interface.name;
        }
    }
    return {};
}

}  // namespace scc::kernel
