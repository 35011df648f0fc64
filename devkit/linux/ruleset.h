// The service's tables as they shall be and as the kernel has them, and the transaction that makes the second
// like the first.
//
// Every rule carries a comment that says what it is for. By it a service knows its rules again, also those of
// an earlier process: a rule with the comment that it would give it stays untouched; any other goes. Counters
// are objects of their own, so that they outlive the rules that count with them.
//
// Pure, but for what a fetch of handles does. Not thread-safe.
#pragma once

#include <cerrno>
#include <compare>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ace/ace_layout.h"
#include "common/bytes.h"
#include "linux/batch.h"

namespace scc::kernel {

// The chain of an ACL is named after the ACL's counter.
inline constexpr std::string_view acl_prefix = "acl-";

// A long one goes on in chains whose names have this and a number at the end.
inline constexpr char list_separator = '/';
// The chain in which the list of an ACL's rules begins, of any chain of an ACL.
[[nodiscard]] chain_name first_of_list(const chain_name& chain);

inline constexpr char kind_ace = 'a';
inline constexpr char kind_next = 'n';
inline constexpr char kind_other = 'r';

// What a rule is for. The meaning of the numbers depends on the kind.
struct rule_identity {
    // kind_ace: with its sequence number, id and counter's number; kind_next: leads to the ACL's chain with
    // this number; kind_other
    char kind = 0;
    u32 first = 0;
    u32 second = 0;
    u32 third = 0;
    u64 fingerprint = 0;  // of what the rule does
    bool operator==(const rule_identity&) const = default;
};

// A rule may need several of the kernel's; this is the comment of one of them.
[[nodiscard]] std::string comment_of(const rule_identity& identity, std::size_t part, std::size_t parts);
struct comment_fields {
    rule_identity identity;
    std::size_t part = 0;
    std::size_t parts = 0;
};
// Empty if the comment is none of the service's.
[[nodiscard]] std::optional<comment_fields> parse_comment(std::string_view comment);

// ---- as it shall be ----

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

[[nodiscard]] std::string ace_counter(std::string_view acl_counter, u32 ace_id, u32 number);

// A null chain shall not exist.
using wanted_chains = std::map<chain_name, std::optional<wanted_chain>>;

// ---- as it is ----

struct kernel_rule {
    u64 handle = 0;
    std::string comment;
};

// Nearly always there is one, which needs no memory of its own.
class handle_list {
  public:
    [[nodiscard]] bool empty() const { return size_ == 0; }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] u64 operator[](std::size_t index) const { return index == 0 ? first_ : more_[index - 1]; }
    [[nodiscard]] u64 front() const { return first_; }
    void push_back(u64 handle) {
        if (size_++ == 0) {
            first_ = handle;
        } else {
            more_.push_back(handle);
        }
    }

  private:
    std::size_t size_ = 0;
    u64 first_ = 0;
    std::vector<u64> more_;
};

// All of the kernel's rules of one wanted rule. Without an identity: one rule that is not the service's.
struct held_rule {
    std::optional<rule_identity> identity;
    handle_list handles;  // empty until they are known
    // In a transaction that adds it: how many rules that adds before, and how many for this one.
    std::size_t added_after = 0;
    std::size_t added_parts = 0;
};

[[nodiscard]] std::vector<held_rule> group(const std::vector<kernel_rule>& rules);

struct held_tables {
    std::set<family> tables;
    std::map<chain_name, std::vector<held_rule>> chains;
    std::set<std::string, std::less<>> counters;  // of the netdev table
};

// ---- the transaction ----

// How many ACEs of a long ACL share a chain.
inline constexpr std::size_t list_chain_default = 1000;

// What a commit has to change. The counters of ACLs and ACEs follow from the chains.
struct change_request {
    wanted_chains chains;
    std::size_t list_chain = list_chain_default;
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
