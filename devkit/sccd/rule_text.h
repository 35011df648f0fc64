// The text of an ACE's rule, as sccctl and the software service write it.
#pragma once

#include <optional>
#include <string>

#include "common/bytes.h"

namespace scc::sccd {

// Empty if the record holds no rule in the devkit's layout.
[[nodiscard]] std::optional<std::string> rule_text(devkit::byte_view bytes);
// The record of "[SN] rule [id N]". On failure `problem` says what is wrong.
[[nodiscard]] std::optional<devkit::byte_buffer> parse_rule_text(const std::string& text,
                                                                 std::string& problem);

}  // namespace scc::sccd
