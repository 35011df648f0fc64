// Which faults a call of the library can meet, and faults as text.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sweep/shim.h"

namespace sweep {

// CALL@SITE:NTH:EFFECT, with :onwards if each later call fails too.
[[nodiscard]] std::string text_of(const fault& one);
[[nodiscard]] std::optional<fault> fault_of(const std::string& text);
// An error's name, end, short, or torn-ERROR.
[[nodiscard]] std::string effect_text(const fault& one);

// Adds the faults that the calls of a site can meet.
void add_faults(const site_calls& site, std::vector<fault>& out);

}  // namespace sweep
