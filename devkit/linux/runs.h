// Which ACEs of a list are looked up in maps.
//
// ACEs of one shape that follow each other and have different keys can be: no packet matches two of them, so
// their order makes no difference. They become a run if they are many enough. A run stays one until its last
// ACE goes; an ACE in its middle that does not fit splits it. Pure; any thread.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "linux/ruleset.h"

namespace scc::kernel {

// What a chain of a list shall hold.
struct list_entry {
    held_rule* rule = nullptr;         // as the kernel has it, or the new one
    std::shared_ptr<held_rule> added;  // null: the kernel has it
    const ace::rule* ace = nullptr;    // of an ACE, if it is at hand

    [[nodiscard]] bool is_new() const { return added != nullptr; }
};

// The run that each entry shall be in, or null. Gets new ones from the function, for their shape.
[[nodiscard]] std::vector<held_run*> runs_of(const std::vector<list_entry>& entries, std::size_t run_min,
                                             const std::function<held_run*(u64 shape)>& new_run);

}  // namespace scc::kernel
