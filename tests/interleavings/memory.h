// The memory that the threads of a program share.
//
// Atomic locations keep the history of their stores. A load returns any store that C++ lets it see: none
// older than one that happens before the load, none older than what the thread has seen there, and for a
// sequentially consistent load none older than the last such store. Stores of one location take effect in the
// order of the execution, so a store is never placed before another one that was made earlier.
//
// The scheduler does not switch threads at plain accesses: two that are not synchronised are a data race,
// whichever came first.
#pragma once

#include <cstddef>
#include <cstdint>

#include "scheduler.h"

namespace interleavings {

enum class order { relaxed, consume, acquire, release, acq_rel, seq_cst };  // as the compiler passes them

[[nodiscard]] std::uint64_t atomic_load(const volatile void* at, unsigned size, order how, const void* code);
void atomic_store(volatile void* at, unsigned size, std::uint64_t value, order how, const void* code);
// Read, change and write in one step.
using change = std::uint64_t (*)(std::uint64_t before, std::uint64_t operand);
std::uint64_t atomic_change(volatile void* at, unsigned size, std::uint64_t operand, change how_changed,
                            order how, const void* code);
[[nodiscard]] bool atomic_compare_exchange(volatile void* at, unsigned size, std::uint64_t& expected,
                                           std::uint64_t desired, order success, order failure,
                                           const void* code);
void atomic_fence(order how);

void plain_access(const volatile void* at, std::size_t size, bool writes, const void* code);

// Does not switch threads at atomic accesses to these bytes, which do not matter to the program. They still
// return old values and are checked.
void no_switches_at(const volatile void* at, std::size_t size);

// The barrier that a lock of the C library implies (POSIX, Memory Synchronization): a thread that takes a
// lock later sees what this thread has seen and done before. Plain accesses are ordered by the lock itself,
// not by this.
void full_barrier();
// An address that every operation with a barrier touches.
[[nodiscard]] const void* barriers();

void reset_memory();

}  // namespace interleavings
