// What makes a rule valid, and its normal form. Stateless; any thread.
#pragma once

#include "scc_records.h"

namespace scc::records {

// Null, or what contradicts itself in the rule.
[[nodiscard]] const char* problem_of(const scc_ace_rule& rule);

// Clears what the rule does not compare, sorts and joins its port ranges. The rule must be valid.
void normalise(scc_ace_rule& rule);

// The number of leading ones if the mask has no other ones; -1 otherwise.
[[nodiscard]] int prefix_bits(const scc_ace_address& address);
// Compares the first bits of the address and clears the others.
void set_prefix(scc_ace_address& address, unsigned bits);

}  // namespace scc::records
