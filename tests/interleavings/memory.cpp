// See memory.h.
#include "memory.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstring>
#include <utility>
#include <vector>

#include "system.h"

namespace interleavings {
namespace {

constexpr bool acquires(order how) {
    return how == order::acquire || how == order::consume || how == order::acq_rel || how == order::seq_cst;
}
constexpr bool releases(order how) {
    return how == order::release || how == order::acq_rel || how == order::seq_cst;
}

constexpr const char* name_of(order how) {
    constexpr std::array names{"relaxed", "consume", "acquire", "release", "acq_rel", "seq_cst"};
    return names[static_cast<std::size_t>(how)];
}

// A table by address that is emptied in one step.
template <class Entry, std::size_t Size>
class address_table {
  public:
    void clear() {
        ++generation_;
        used_ = 0;
    }
    // Returns the entry. A new one still has the content of its last use.
    Entry& find(std::uintptr_t key, bool& is_new) {
        for (std::size_t i = (key * 0x9E3779B97F4A7C15u) >> 40;; ++i) {
            slot& here = slots_[i % Size];
            if (here.generation == generation_ && here.key == key) {
                is_new = false;
                return here.entry;
            }
            if (here.generation != generation_) {
                if (++used_ > Size / 2) {
                    violate("The program touches more memory than the model has room for.");
                }
                here.generation = generation_;
                here.key = key;
                is_new = true;
                return here.entry;
            }
        }
    }

  private:
    struct slot {
        std::uint64_t generation = 0;
        std::uintptr_t key = 0;
        Entry entry{};
    };
    std::vector<slot> slots_ = std::vector<slot>(Size);
    std::uint64_t generation_ = 1;
    std::size_t used_ = 0;
};

struct store {
    std::uint64_t value = 0;
    bool seq_cst = false;
    vector_clock released{};  // what a thread that acquires it synchronises with
};

// A thread has seen this store: it has read or made it.
struct sighting {
    unsigned thread;
    tick when;
    std::size_t index;
};

struct location {
    std::vector<store> history;
    std::vector<sighting> sightings;
};

// The last accesses to eight bytes, by kind, thread and byte.
enum access_kind { plain_read, plain_write, atomic_read, atomic_write };
struct cell {
    std::array<std::array<std::array<tick, 8>, most_threads>, 4> last{};
};

address_table<location, 4096> g_locations;
address_table<cell, 16384> g_cells;
std::vector<std::pair<std::uintptr_t, std::uintptr_t>> g_without_switches;  // from, to
vector_clock g_barriers;                                  // what the barriers so far have made visible
std::array<vector_clock, most_threads> g_fence_released;  // what a thread's later relaxed stores release
std::array<vector_clock, most_threads> g_fence_to_acquire;

std::uint64_t value_at(const volatile void* at, unsigned size) {
    std::uint64_t value = 0;
    std::memcpy(&value, const_cast<const void*>(at), size);
    return value;
}

// A loop with this many accesses and no operation that others see counts as endless; the programs make
// hundreds.
constexpr unsigned most_plain_accesses = 100000;
unsigned g_plain_accesses = 0;

constexpr bool conflict(access_kind a, access_kind b) {
    const bool writes = a == plain_write || a == atomic_write || b == plain_write || b == atomic_write;
    const bool both_atomic = a >= atomic_read && b >= atomic_read;
    return writes && !both_atomic;
}

void check_byte(cell& here, std::size_t byte, access_kind kind, const volatile void* at) {
    const unsigned self = current_thread();
    const vector_clock& clock = current_clock();
    for (const access_kind other : {plain_read, plain_write, atomic_read, atomic_write}) {
        if (!conflict(kind, other)) {
            continue;
        }
        for (unsigned thread = 0; thread < most_threads; ++thread) {
            if (thread != self && !clock.covers(thread, here.last[other][thread][byte])) {
                constexpr std::array names{"reads", "writes", "reads (atomic)", "writes (atomic)"};
                violate("Data race: thread %u %s and thread %u %s the byte at %p.", thread, names[other],
                        self, names[kind], const_cast<const void*>(at));
            }
        }
    }
    here.last[kind][self][byte] = clock.ticks[self];
}

void check_access(const volatile void* at, std::size_t size, access_kind kind) {
    const auto first = reinterpret_cast<std::uintptr_t>(at);
    for (std::uintptr_t address = first; address < first + size;) {
        bool is_new = false;
        cell& here = g_cells.find(address >> 3, is_new);
        if (is_new) {
            here = {};
        }
        for (std::size_t byte = address & 7; byte < 8 && address < first + size; ++byte, ++address) {
            check_byte(here, byte, kind, at);
        }
    }
}

// The location, whose last store is the memory's content. A plain write, which must happen before this
// access, starts a new history.
location& location_at(const volatile void* at, unsigned size) {
    bool is_new = false;
    location& here = g_locations.find(reinterpret_cast<std::uintptr_t>(at), is_new);
    const std::uint64_t value = value_at(at, size);
    if (is_new || here.history.back().value != value) {
        here.history.assign(1, {.value = value});
        here.sightings.clear();
    }
    return here;
}

void see(location& here, std::size_t index) {
    here.sightings.push_back({current_thread(), current_clock().ticks[current_thread()], index});
}

// The oldest store that the current thread may read: the newest one that it, or a thread that it has
// synchronised with since, has seen.
std::size_t oldest_visible(const location& here, order how) {
    std::size_t oldest = 0;
    for (const sighting& each : here.sightings) {
        if (each.thread == current_thread() || current_view().covers(each.thread, each.when)) {
            oldest = std::max(oldest, each.index);
        }
    }
    for (std::size_t i = here.history.size() - 1; how == order::seq_cst && i > oldest; --i) {
        if (here.history[i].seq_cst) {
            oldest = i;
        }
    }
    return oldest;
}

void synchronise_with(const store& read, order how) {
    if (acquires(how)) {
        join_clock(read.released);
    } else {
        g_fence_to_acquire[current_thread()].join(read.released);
    }
}

void append(location& here, volatile void* at, unsigned size, std::uint64_t value, order how,
            const vector_clock& kept) {
    const unsigned self = current_thread();
    store next{.value = value, .seq_cst = how == order::seq_cst, .released = kept};
    next.released.join(releases(how) ? current_clock() : g_fence_released[self]);
    here.history.push_back(next);
    see(here, here.history.size() - 1);
    std::memcpy(const_cast<void*>(at), &value, size);
    if (releases(how)) {
        advance_clock();
    }
}

bool interrupts_at(const volatile void* at) {
    const auto address = reinterpret_cast<std::uintptr_t>(at);
    for (const auto& [from, to] : g_without_switches) {
        if (address >= from && address < to) {
            return false;
        }
    }
    return true;
}

void pause(const volatile void* at, const char* name, bool writes, const void* code) {
    if (interrupts_at(at)) {
        before({.name = name, .touches = {const_cast<const void*>(at)}, .writes = writes, .code = code});
    }
}

}  // namespace

std::uint64_t atomic_load(const volatile void* at, unsigned size, order how, const void* code) {
    if (!is_exploring()) {
        return value_at(at, size);
    }
    pause(at, "loads", false, code);
    check_heap(at, size);
    check_access(at, size, atomic_read);
    location& here = location_at(at, size);
    const std::size_t newest = here.history.size() - 1;
    const std::size_t older = newest - oldest_visible(here, how);
    const std::size_t read = newest - choose_old_value(static_cast<unsigned>(older + 1));
    see(here, read);
    synchronise_with(here.history[read], how);
    if (interrupts_at(at)) {
        note(" %#" PRIx64 " (%s%s)", here.history[read].value, name_of(how),
             read == newest ? "" : ", an old value");
    }
    return here.history[read].value;
}

void atomic_store(volatile void* at, unsigned size, std::uint64_t value, order how, const void* code) {
    if (!is_exploring()) {
        std::memcpy(const_cast<void*>(at), &value, size);
        return;
    }
    pause(at, "stores", true, code);
    if (interrupts_at(at)) {
        note(" %#" PRIx64 " (%s)", value, name_of(how));
    }
    check_heap(at, size);
    check_access(at, size, atomic_write);
    append(location_at(at, size), at, size, value, how, {});
}

std::uint64_t atomic_change(volatile void* at, unsigned size, std::uint64_t operand, change how_changed,
                            order how, const void* code) {
    const std::uint64_t mask = size == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (size * 8)) - 1;
    if (!is_exploring()) {
        const std::uint64_t old = value_at(at, size);
        const std::uint64_t changed = how_changed(old, operand) & mask;
        std::memcpy(const_cast<void*>(at), &changed, size);
        return old;
    }
    pause(at, "changes", true, code);
    check_heap(at, size);
    check_access(at, size, atomic_write);
    location& here = location_at(at, size);
    const store read = here.history.back();
    synchronise_with(read, how);
    const std::uint64_t changed = how_changed(read.value, operand) & mask;
    if (interrupts_at(at)) {
        note(" %#" PRIx64 " to %#" PRIx64 " (%s)", read.value, changed, name_of(how));
    }
    append(here, at, size, changed, how, read.released);
    return read.value;
}

bool atomic_compare_exchange(volatile void* at, unsigned size, std::uint64_t& expected, std::uint64_t desired,
                             order success, order failure, const void* code) {
    if (is_exploring()) {
        pause(at, "compares and exchanges", true, code);
        check_heap(at, size);
        check_access(at, size, atomic_write);
        location& here = location_at(at, size);
        const store read = here.history.back();
        if (interrupts_at(at)) {
            note(" %#" PRIx64, read.value);
        }
        if (read.value != expected) {
            see(here, here.history.size() - 1);
            synchronise_with(read, failure);
            expected = read.value;
            return false;
        }
        synchronise_with(read, success);
        append(here, at, size, desired, success, read.released);
        return true;
    }
    const std::uint64_t old = value_at(at, size);
    const bool equal = old == expected;
    if (equal) {
        std::memcpy(const_cast<void*>(at), &desired, size);
    }
    expected = old;
    return equal;
}

void atomic_fence(order how) {
    if (!is_exploring()) {
        return;
    }
    const unsigned self = current_thread();
    if (acquires(how)) {
        join_clock(g_fence_to_acquire[self]);
    }
    if (how == order::seq_cst) {
        before({.name = "fence", .touches = {barriers()}});
        full_barrier();
    }
    if (releases(how)) {
        g_fence_released[self] = current_clock();
        advance_clock();
    }
}

void plain_access(const volatile void* at, std::size_t size, bool writes, const void* /*code*/) {
    if (!is_exploring() || belongs_to_thread(const_cast<const void*>(at))) {
        return;
    }
    if (++g_plain_accesses > most_plain_accesses) {
        violate("The execution does not end.");
    }
    check_heap(at, size);
    check_access(at, size, writes ? plain_write : plain_read);
}

void no_switches_at(const volatile void* at, std::size_t size) {
    const auto from = reinterpret_cast<std::uintptr_t>(at);
    g_without_switches.emplace_back(from, from + size);
}

void full_barrier() {
    vector_clock& view = current_view();
    view.join(g_barriers);
    g_barriers.join(view);
    advance_clock();
}

const void* barriers() {
    return &g_barriers;
}

void reset_memory() {
    g_plain_accesses = 0;
    g_locations.clear();
    g_cells.clear();
    g_without_switches.clear();
    g_barriers = {};
    g_fence_released = {};
    g_fence_to_acquire = {};
}

}  // namespace interleavings
