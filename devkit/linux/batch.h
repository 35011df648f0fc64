// Changes of the service's tables, which the kernel carries out all together or not at all. Not thread-safe.
#pragma once

#include <array>
#include <compare>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "linux/expressions.h"

namespace scc::kernel {

inline constexpr std::string_view table_name = "scclib";

// The families in which the service has a table.
enum class family : u8 { netdev, inet };
inline constexpr family families[] = {family::netdev, family::inet};
[[nodiscard]] u8 number_of(family in);

struct chain_name {
    family in = family::netdev;
    std::string name;
    auto operator<=>(const chain_name&) const = default;
};

// Where packets enter a chain.
struct chain_hook {
    u32 number = 0;
    std::string interface;  // empty: none
};

// What is asked for in any order is done in an order that works: what rules use is added before them and
// deleted after them.
class batch {
  public:
    void add_table(family in);
    void delete_table(family in);
    void add_chain(const chain_name& chain, const std::optional<chain_hook>& hook);
    // Its rules have to be deleted, too.
    void delete_chain(const chain_name& chain);
    void add_counter(std::string_view name);
    void delete_counter(std::string_view name);
    // From keys of this length to counters. What its elements count in has to be there.
    void add_map(std::string_view name, std::size_t key_len, u32 key_type);
    void delete_map(std::string_view name);

    // Rules and elements change in the order of the calls.
    void flush_chain(const chain_name& chain);
    // Before the rule with the handle; 0: at the end.
    void add_rule(const chain_name& chain, u64 before, std::string_view comment, const expressions& what);
    void delete_rule(const chain_name& chain, u64 handle);
    void add_element(std::string_view map, std::string_view key, std::string_view counter,
                     std::string_view comment);
    void delete_element(std::string_view map, std::string_view key);

    [[nodiscard]] bool is_empty() const;
    // How many rules it adds.
    [[nodiscard]] std::size_t added_rules() const { return added_rules_; }

    // Whether every part is short enough for its length field.
    [[nodiscard]] bool fits() const { return fits_; }

    // The messages as they are sent, numbered from 1 on. The kernel answers the first change, and every added
    // rule with what became of it if `with_rules`. It refuses the batch if its rules are of another
    // generation; 0: of any.
    [[nodiscard]] std::string bytes(bool with_rules, u32 generation = 0) const;

  private:
    enum stage : u8 { parts_added, chains_added, rules_changed, chains_deleted, parts_deleted, stages };

    template <class Fill>
    void put(stage when, int type, unsigned flags, family in, Fill fill);
    [[nodiscard]] std::string user_data_of(std::string_view comment);
    void add_set(family in, u32 number, const std::vector<number_range>& ranges);

    std::array<std::string, stages> messages_;
    std::size_t added_rules_ = 0;
    u32 sets_ = 0;
    bool fits_ = true;
};

}  // namespace scc::kernel
