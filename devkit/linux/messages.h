// What the kernel's packet filter answers, decoded. Pure; any thread.
#pragma once

#include <linux/netfilter/nf_tables.h>

#include <array>
#include <string>
#include <string_view>

#include "linux/attributes.h"
#include "linux/held_tables.h"
#include "linux/nftables.h"

namespace scc::kernel {

// The attributes of a message by their type; null where there is none.
using attribute_table = std::array<const nlattr*, NFTA_RULE_MAX + NFTA_CHAIN_MAX + NFTA_OBJ_MAX>;
[[nodiscard]] attribute_table attributes_of(const nlmsghdr* message);

// Of an attribute that is missing: empty and 0.
[[nodiscard]] std::string text_of(const nlattr* attribute);
[[nodiscard]] u64 number_of(const nlattr* attribute);

[[nodiscard]] std::string comment_in(const nlattr* user_data);
// Of the data of a counter object.
[[nodiscard]] counted counter_in(const nlattr* data);
[[nodiscard]] kernel_element element_in(const nlattr* data);

// Of an answer, or of the end of a dump: 0 or an errno value.
[[nodiscard]] u32 result_of(const nlmsghdr* message);
// What the change was about that an answer refuses.
[[nodiscard]] std::string_view subject_of(const nlmsghdr* answer);

}  // namespace scc::kernel
