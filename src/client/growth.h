// Lets the checker grow the index of a store that a lock guards (util/growing_array.h). Allocating and
// freeing the tables of a million entries takes milliseconds, so both happen without the lock.
#pragma once

#include <cstddef>
#include <cstdlib>

#include "client/tuning.h"

namespace scc {

// What one pass of the checker does. with_table(work) calls work(table) under the lock; when it does not get
// the lock it returns false, and a later pass will do.
template <class Table, class WithTable>
void grow_in_steps(WithTable with_table) {
    std::size_t wanted = 0;
    bool is_growing = false;
    if (!with_table([&](Table& table) {
            wanted = table.buckets_wanted();
            is_growing = table.is_growing();
        })) {
        return;
    }
    if (wanted != 0) {
        auto* buckets = Table::allocate_buckets(wanted);
        if (buckets != nullptr) {
            (void)with_table([&](Table& table) {
                is_growing = table.begin_growth(buckets, wanted);
                buckets = is_growing ? nullptr : buckets;
            });
        }
        // Not taken over when entries were dropped meanwhile.
        std::free(buckets);
    }
    for (std::size_t moved = 0; is_growing && moved < tuning::buckets_moved_a_pass;
         moved += tuning::buckets_moved_at_once) {
        void* former = nullptr;
        if (!with_table([&](Table& table) {
                former = table.move_buckets(tuning::buckets_moved_at_once);
                is_growing = table.is_growing();
            })) {
            break;
        }
        std::free(former);
    }
}

}  // namespace scc
