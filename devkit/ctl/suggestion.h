// Guesses what a misspelt word was meant to be.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace scc::ctl {

// The candidate that differs from the word in the fewest letters, if those are few; empty if none does.
[[nodiscard]] std::string closest(std::string_view word, const std::vector<std::string>& candidates);
// "; did you mean 'acl'?", or nothing.
[[nodiscard]] std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace scc::ctl
