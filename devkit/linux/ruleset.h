// The service's tables as they shall be, and the transaction that makes what the kernel has like them.
//
// A rule with the comment that the service would give it stays untouched; any other goes. Counters are
// objects of their own, so that they outlive the rules that count with them.
//
// Pure, but for what a fetch of handles does. Not thread-safe.
#pragma once

#include <cerrno>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ace/ace_layout.h"
#include "linux/held_tables.h"

namespace scc::kernel {

struct wanted_rule {
    rule_identity identity;
    const ace::rule* ace = nullptr;  // of an ACE; valid until the transaction is planned
    expressions what;                // of any other rule
};

struct wanted_chain {
    std::optional<chain_hook> hook;
    // The name of its ACL's counter; with the id and the number of an ACE's counter, that of the ACE.
    std::string counter;
    std::vector<wanted_rule> rules;
    // Of an ACL: the sequence numbers of which `rules` has all ACEs; nothing changes at others. Empty: all.
    std::optional<std::set<u32>> touched;
};

// A null chain shall not exist.
using wanted_chains = std::map<chain_name, std::optional<wanted_chain>>;

// ---- the transaction ----

struct list_limits {
    std::size_t chain = 1000;  // how many ACEs of a long ACL share a chain
    std::size_t run = 16;      // how many ACEs of the same shape share maps, at least
};

// What a commit has to change. The counters of ACLs and ACEs follow from the chains.
struct change_request {
    wanted_chains chains;
    list_limits limits;
    std::set<std::string> counters_added;    // no effect on those that exist
    std::set<std::string> counters_deleted;  // likewise on those that do not, and on those that are needed
};

struct transaction {
    batch changes;
    // Gets the handles of the rules that were added, if they are known.
    std::function<void(held_tables&, const std::vector<u64>& handles)> done;
};

// `handles` fetches the handles of a chain's rules into the held table; it may fail with an errno value.
using handle_fetcher = std::function<u32(const chain_name&)>;

// plan() can do with some of an ACL's rules what it needs all of them for.
inline constexpr u32 needs_all_rules = EXFULL;

// Returns 0, needs_all_rules or another errno value. `held` outlives the transaction's use.
[[nodiscard]] u32 plan(const change_request& request, held_tables& held, const handle_fetcher& handles,
                       transaction& out);

}  // namespace scc::kernel
