// The service's tables as the kernel has them.
//
// Every rule carries a comment that says what it is for. By it a service knows its rules again, also those of
// an earlier process. A rule of an ACL is found for each ACE, or for a run of ACEs that compare the same
// fields with different values: it looks their values up in maps, whose elements carry the comments of the
// ACEs.
//
// Pure. Not thread-safe.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "linux/batch.h"

namespace scc::kernel {

// The chain of an ACL is named after the ACL's counter.
inline constexpr std::string_view acl_prefix = "acl-";

// A long one goes on in chains whose names have this and a number at the end.
inline constexpr char list_separator = '/';
// The chain in which the list of an ACL's rules begins, of any chain of an ACL.
[[nodiscard]] chain_name first_of_list(const chain_name& chain);
// The chain with this number, from 1 on.
[[nodiscard]] chain_name chain_of_list(const chain_name& first, u32 number);

[[nodiscard]] std::string ace_counter(std::string_view acl_counter, u32 ace_id, u32 number);

// The map from the keys of a run's ACEs that deny, or of those that permit, to their counters.
[[nodiscard]] std::string map_name(const chain_name& chain, u32 run, bool denies);

// ---- comments ----

inline constexpr char kind_ace = 'a';
inline constexpr char kind_run = 'm';
inline constexpr char kind_next = 'n';
inline constexpr char kind_other = 'r';

// What a rule is for. The meaning of the numbers depends on the kind.
struct rule_identity {
    // kind_ace: with its sequence number, id and counter's number; kind_run: with its number; kind_next:
    // leads to the ACL's chain with this number; kind_other
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

// ---- as the kernel tells it ----

struct kernel_rule {
    u64 handle = 0;
    std::string comment;
};

struct kernel_element {
    std::string key;
    std::string comment;
};

// Whether an element is listed twice. The kernel does so if it enlarges a map while it lists the elements,
// and may leave out others.
[[nodiscard]] bool is_repetitive(const std::vector<kernel_element>& elements);

using kernel_maps = std::map<std::string, std::vector<kernel_element>>;

// ---- as it is held ----

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

// All of the kernel's rules that are for one thing.
struct kernel_rules {
    handle_list handles;  // empty until they are known
    // In a transaction that adds them: how many rules that adds before, and how many of these.
    std::size_t added_after = 0;
    std::size_t added_parts = 0;

    // From those of all rules that the transaction added.
    void take_handles(const std::vector<u64>& added);
};

struct held_run {
    u32 number = 0;
    u64 shape = 0;
    kernel_rules rules;
};

// An ACE, or what one rule is for. Without an identity: a rule that is not the service's.
struct held_rule {
    std::optional<rule_identity> identity;
    kernel_rules rules;  // of its own, unless it is in a run
    // Of an ACE, if they are known.
    u64 shape = 0;
    std::string key;
    bool denies = false;
    std::shared_ptr<held_run> run;
};

struct held_tables {
    std::set<family> tables;
    // The ACEs of a run follow each other, with ascending sequence numbers.
    std::map<chain_name, std::vector<held_rule>> chains;
    std::set<std::string, std::less<>> counters;  // of the netdev table
    std::set<std::string> stray_maps;             // of no run
};

// The rules of a chain, put together where they are for the same thing.
[[nodiscard]] std::vector<held_rule> group(const std::vector<kernel_rule>& rules);

// Puts the ACEs of each run in the place of its rule, and takes its maps away. A run whose maps are not as
// they should be becomes a rule that is not the service's.
void expand_runs(const chain_name& chain, std::vector<held_rule>& rules, kernel_maps& maps);

// Enters the handles, if the rules are those that are known.
[[nodiscard]] bool enter_handles(const std::vector<kernel_rule>& rules, std::vector<held_rule>& known);

}  // namespace scc::kernel
