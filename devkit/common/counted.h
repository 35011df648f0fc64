// Counts in messages: "1 ACL", "2 ACLs".
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace scc::devkit {

// For words whose plural ends in "s", and for others with their plural.
[[nodiscard]] inline std::string counted(std::uint64_t count, std::string_view one,
                                         std::string_view several = {}) {
    if (count == 1) {
        return fmt::format("1 {}", one);
    }
    return several.empty() ? fmt::format("{} {}s", count, one) : fmt::format("{} {}", count, several);
}

}  // namespace scc::devkit
