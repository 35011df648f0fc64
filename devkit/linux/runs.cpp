#include "linux/runs.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_set>

namespace scc::kernel {
namespace {

// Entries that can share maps.
struct stretch {
    std::size_t first = 0;
    std::size_t last = 0;     // the first entry that is not in it
    held_run* run = nullptr;  // in which some of them are
};

class stretch_finder {
  public:
    explicit stretch_finder(const std::vector<list_entry>& entries) : entries_(entries) {}

    [[nodiscard]] std::vector<stretch> run() {
        for (std::size_t index = 0; index < entries_.size(); ++index) {
            if (index == 0 || !fits(index)) {
                found_.push_back({index, index, nullptr});
                other_keys_.clear();
            }
            take(index);
        }
        return std::move(found_);
    }

  private:
    // Whether the entry continues the last stretch.
    [[nodiscard]] bool fits(std::size_t index) const {
        const held_rule& before = *entries_[index - 1].rule;
        const held_rule& ace = *entries_[index].rule;
        const held_run* const run = found_.back().run;
        // Of a run that was split, one stretch keeps the maps; the ACEs of the others leave them.
        const bool is_of_other_run =
            run != nullptr && ace.run && ace.run.get() != run && !taken_.contains(ace.run.get());
        // By their sequence numbers, a new process knows the order of a run's ACEs again.
        return ace.shape != 0 && ace.shape == before.shape && !is_of_other_run &&
               before.identity->first < ace.identity->first && !has_key(index);
    }

    // The keys of a run differ already; so ACEs that are in it are compared with others alone.
    [[nodiscard]] bool has_key(std::size_t index) const {
        const held_rule& ace = *entries_[index].rule;
        if (!other_keys_.empty() && other_keys_.contains(ace.key)) {
            return true;
        }
        const held_run* const run = found_.back().run;
        if (run == nullptr || ace.run.get() == run) {
            return false;
        }
        return std::any_of(entries_.begin() + static_cast<std::ptrdiff_t>(found_.back().first),
                           entries_.begin() + static_cast<std::ptrdiff_t>(index),
                           [&](const list_entry& entry) { return entry.rule->key == ace.key; });
    }

    void take(std::size_t index) {
        const held_rule& ace = *entries_[index].rule;
        stretch& last = found_.back();
        last.last = index + 1;
        if (ace.run && last.run == nullptr && taken_.insert(ace.run.get()).second) {
            last.run = ace.run.get();
        }
        if (last.run == nullptr || ace.run.get() != last.run) {
            other_keys_.insert(ace.key);
        }
    }

    const std::vector<list_entry>& entries_;
    std::vector<stretch> found_;
    std::unordered_set<std::string_view> other_keys_;  // of the last stretch, but those of its run
    std::set<const held_run*> taken_;
};

}  // namespace

std::vector<held_run*> runs_of(const std::vector<list_entry>& entries, std::size_t run_min,
                               const std::function<held_run*(u64 shape)>& new_run) {
    std::vector<held_run*> runs;
    runs.reserve(entries.size());
    for (const stretch& found : stretch_finder(entries).run()) {
        const u64 shape = entries[found.first].rule->shape;
        const bool is_enough = shape != 0 && found.last - found.first >= run_min;
        runs.insert(runs.end(), found.last - found.first,
                    found.run == nullptr && is_enough ? new_run(shape) : found.run);
    }
    return runs;
}

}  // namespace scc::kernel
