// How costs grow with the number of entries: pending calls, the ACL cache, the id/type map. In memory,
// without sockets, on the library's internal functions. Times are processor times of one thread; the sizes of
// one line take turns, each in its own process.
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "client/results.h"
#include "msg/bytes.h"
#include "rounds.h"
#include "ss/id_map.h"

namespace {

using namespace scc;

enum sequence { ascending, descending, shuffled };

constexpr u32 million = 1000000;

std::vector<u32> ids(std::size_t count, sequence how) {
    std::vector<u32> out(count);
    std::iota(out.begin(), out.end(), 1U);
    if (how == descending) {
        std::reverse(out.begin(), out.end());
    } else if (how == shuffled) {
        std::shuffle(out.begin(), out.end(), std::mt19937{1});
    }
    return out;
}

double thread_ns() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

template <class Work>
double time_of(double operations, Work work) {
    const double began = thread_ns();
    work();
    return (thread_ns() - began) / operations;
}

void be_registered() {
    _scc_lib_data_init();
    g_scc_client_cb.state.store(state_registered);
    g_scc_client_cb.option.store(1);
}

void save(u32 id) {
    const u8 saved[5] = {};
    const write_guard guard(lib_lock);
    if (_scc_lib_save_call_data(id, 23, saved, sizeof saved) != 0) {
        std::exit(1);
    }
}

// What the checker does meanwhile, and after that until the index has grown.
constexpr u32 a_pass = 1U << 15U;
constexpr int last_passes = 200;

void save_calls(u32 count) {
    _scc_lib_data_init();
    for (u32 id = 1; id <= count; ++id) {
        save(id);
        if (id % a_pass == 0) {
            grow_pending_index();
        }
    }
    for (int i = 0; i < last_passes; ++i) {
        grow_pending_index();
    }
}

// Each result (its handler is missing) is followed by a new call, so that the number pending is constant.
double single_result(u32 pending, sequence how) {
    save_calls(pending);
    const std::vector<u32> order = ids(pending, how);
    constexpr u32 results = million;
    return time_of(results, [&] {
        for (u32 i = 0; i < results; ++i) {
            const u32 id = order[i % pending];
            const u32 value[2] = {id, 0};
            _scc_lib_call_ret_proc(value);
            save(id);
        }
    });
}

// Messages of 500 results, until no call is pending.
double results_together(u32 pending, sequence how) {
    save_calls(pending);
    const std::vector<u32> order = ids(pending, how);
    constexpr u32 per_message = 500;
    std::vector<u8> items(std::size_t{pending} * 16);
    for (std::size_t i = 0; i < pending; ++i) {
        store<u32>(items.data(), i * 16, u32{8});
        store<u16>(items.data(), i * 16 + 6, msg::call_ret);
        store<u32>(items.data(), i * 16 + 8, order[i]);
    }
    return time_of(pending, [&] {
        for (u32 at = 0; at < pending; at += per_message) {
            _scc_lib_async_msg_proc(std::min(per_message, pending - at), items.data() + std::size_t{at} * 16);
        }
    });
}

// What the results above cannot do without: a slot of a table as large as the index and the block that it
// leads to, both changed, in runs of 32 whose accesses overlap; the block is freed.
double memory_accesses(u32 pending, sequence how) {
    struct block {
        u8 bytes[pending_call::head_bytes + 5];
    };
    std::vector<block*> blocks(std::size_t{1} << 22U);
    for (u32 i = 0; i < pending; ++i) {
        blocks[2 * i] = static_cast<block*>(std::calloc(1, sizeof(block)));
    }
    std::vector<u32> order = ids(pending, how);
    constexpr u32 run = 32;
    return time_of(pending, [&] {
        for (u32 at = 0; at + run <= pending; at += run) {
            for (u32 i = at; i < at + run; ++i) {
                __builtin_prefetch(&blocks[2 * (order[i] - 1)], 1);
            }
            for (u32 i = at; i < at + run; ++i) {
                __builtin_prefetch(blocks[2 * (order[i] - 1)], 1);
            }
            for (u32 i = at; i < at + run; ++i) {
                block*& slot = blocks[2 * (order[i] - 1)];
                slot->bytes[0] = 1;
                std::free(std::exchange(slot, nullptr));
            }
        }
    });
}

constexpr u32 ids_of_a_type = 32768;

scc_acl_key acl_number(u32 number) {
    return {0, 1 + number / ids_of_a_type, 1 + number % ids_of_a_type, 0};
}

void hold_acls(u32 count) {
    be_registered();
    for (u32 i = 0; i < count; ++i) {
        const scc_acl_key key = acl_number(i);
        _scc_lib_acl_add(&key);
        if (i % a_pass == 0) {
            grow_acl_index();
        }
    }
    for (int i = 0; i < last_passes; ++i) {
        grow_acl_index();
    }
}

constexpr u32 look_ups = 2 * million;

// In the order of creation.
double find_acl(u32 held) {
    hold_acls(held);
    return time_of(look_ups, [&] {
        for (u32 i = 0; i < look_ups; ++i) {
            const scc_acl_key key = acl_number(i % held);
            const write_guard guard(acl_lock);
            if (_scc_acl_get(&key) == nullptr) {
                std::exit(1);
            }
        }
    });
}

// What a look-up cannot do without: the lock, and a slot of a table as large as the index, of which eight ids
// in succession find theirs side by side.
double look_up_accesses(u32 held) {
    struct slot {
        u8 bytes[24];
    };
    constexpr u32 together = 8;
    std::vector<slot> table(std::bit_ceil(std::size_t{2} * std::max(held, 128U)), slot{{1}});
    u64 sum = 0;
    const double one = time_of(look_ups, [&] {
        for (u32 i = 0; i < look_ups; ++i) {
            const u32 number = i % held;
            const std::size_t group = (number / together) * 0x9E3779B97F4A7C15ULL >> 20U;
            const write_guard guard(acl_lock);
            sum += table[(group * together + number % together) & (table.size() - 1)].bytes[0];
        }
    });
    return sum == look_ups ? one : 0;
}

// The same through the interface, locks included, reading the ACL that was found.
double read_acl(u32 held) {
    hold_acls(held);
    return time_of(look_ups, [&] {
        for (u32 i = 0; i < look_ups; ++i) {
            scc_acl_key key = acl_number(i % held);
            if (scc_acl_cls_get(&key) != 0) {
                std::exit(1);
            }
        }
    });
}

double add_acls(u32 count) {
    _scc_lib_data_init();
    return time_of(count, [&] { hold_acls(count); });
}

void fill_acl(const std::vector<u32>& order, const scc_ace_record& like = {}) {
    const scc_acl_key key{0, 3, 1, 0};
    scc_ace_record ace = like;
    _scc_lib_acl_add(&key);
    for (const u32 sn : order) {
        ace.sn = sn;
        _scc_lib_ace_add(&key, &ace);
    }
}

// In memory that the process has used before: fresh pages are the kernel's cost.
double add_aces(u32 count, sequence how) {
    be_registered();
    const std::vector<u32> order = ids(count, how);
    fill_acl(order);
    double ns = 0;
    const u32 repeats = std::max(1U, 20000 / count);
    for (u32 i = 0; i < repeats; ++i) {
        _scc_lib_data_init();
        ns += time_of(count, [&] { fill_acl(order); });
    }
    return ns / repeats;
}

// Per ACE that is read back.
double read_back(u32 count) {
    be_registered();
    fill_acl(ids(count, ascending));
    scc_acl_key key{0, 3, 1, 0};
    constexpr u32 repeats = 20;
    double ns = 0;
    for (u32 i = 0; i <= repeats; ++i) {
        scc_list_head list;
        const double one = time_of(count, [&] {
            if (scc_acl_get_ace(&key, &list) != 0) {
                std::exit(1);
            }
        });
        ns += i == 0 ? 0 : one;
        for (scc_list_head* at = list.next; at != &list;) {
            scc_list_head* gone = at;
            at = at->next;
            std::free(gone);
        }
    }
    return ns / repeats;
}

double id_in_and_out(u32 held) {
    empty_id_map();
    for (u32 id = 1; id <= held; ++id) {
        _scc_ss_save_idtype(id, 1);
    }
    return time_of(million, [&] {
        for (u32 i = 0; i < million; ++i) {
            const u32 id = 1 + i % held;
            if (_scc_ss_get_type(id) != 1) {
                std::exit(1);
            }
            _scc_ss_save_idtype(id, 1);
        }
    });
}

// What the kernel takes for a page that a process touches for the first time.
double fresh_page() {
    constexpr std::size_t pages = 2400;
    constexpr std::size_t page_bytes = 4096;
    void* memory =
        mmap(nullptr, pages * page_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::exit(1);
    }
    auto* bytes = static_cast<volatile u8*>(memory);
    return time_of(pages, [&] {
        for (std::size_t i = 0; i < pages; ++i) {
            bytes[i * page_bytes] = 1;
        }
    });
}

// Bytes of the heap, with what malloc adds to each block.
template <class Work>
double bytes_of_each(u32 count, Work work) {
    const auto in_use = [] {
        const struct mallinfo2 now = mallinfo2();
        return static_cast<double>(now.uordblks + now.hblkhd);
    };
    const double before = in_use();
    work();
    return (in_use() - before) / count;
}

// Keeps the allocator from returning memory to the system, which is not the library's cost.
std::function<bench::figure()> own_process(std::function<double()> measure) {
    return [=] {
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
        return bench::figure(measure());
    };
}

struct line {
    std::string what;
    std::function<double()> measure;
    const char* goal = "";
};

// Ratios are to the first line.
void print_lines(const std::vector<line>& lines, const char* unit, int rounds) {
    std::vector<bench::contender> contenders;
    for (const line& one : lines) {
        contenders.push_back({one.what, own_process(one.measure)});
    }
    const auto values = bench::medians(contenders, rounds);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        bench::print_ratio(lines[i].what, values[i], values[0], unit, lines[i].goal);
    }
}

constexpr u32 all_acls = ids_of_a_type * 58;

void print_times(int rounds) {
    print_lines(
        {{"a single result, 10 pending", [] { return single_result(10, ascending); }},
         {"a single result, 1,000,000 pending, ascending", [] { return single_result(million, ascending); }},
         {"a single result, 1,000,000 pending, descending",
          [] { return single_result(million, descending); }},
         {"a single result, 1,000,000 pending, random", [] { return single_result(million, shuffled); }}},
        "ns", rounds);
    print_lines(
        {{"1,000,000 results, 500 a message, ascending", [] { return results_together(million, ascending); }},
         {"1,000,000 results, 500 a message, descending",
          [] { return results_together(million, descending); }},
         {"1,000,000 results, 500 a message, random", [] { return results_together(million, shuffled); },
          "at most 1.3"}},
        "ns", rounds);
    print_lines({{"the memory accesses of such a result alone, ascending",
                  [] { return memory_accesses(million, ascending); }},
                 {"the memory accesses of such a result alone, random",
                  [] { return memory_accesses(million, shuffled); }}},
                "ns", rounds);
    print_lines({{"finding an ACL, 10 held", [] { return find_acl(10); }},
                 {"finding an ACL, 1,000 held", [] { return find_acl(1000); }},
                 {"finding an ACL, 32,768 held", [] { return find_acl(32768); }, "at most 1.5"},
                 {"finding an ACL, 1,900,544 held", [] { return find_acl(all_acls); }, "at most 1.5"}},
                "ns", rounds);
    print_lines(
        {{"the lock and the memory access of a look-up alone, 10 held", [] { return look_up_accesses(10); }},
         {"the lock and the memory access of a look-up alone, 1,900,544 held",
          [] { return look_up_accesses(all_acls); }}},
        "ns", rounds);
    print_lines({{"scc_acl_cls_get, 10 held", [] { return read_acl(10); }},
                 {"scc_acl_cls_get, 32,768 held", [] { return read_acl(32768); }, "at most 1.5"},
                 {"scc_acl_cls_get, 1,900,544 held", [] { return read_acl(all_acls); }, "at most 1.5"}},
                "ns", rounds);
    print_lines({{"adding an ACL, 1,000", [] { return add_acls(1000); }},
                 {"adding an ACL, 1,900,544", [] { return add_acls(all_acls); }}},
                "ns", rounds);
    print_lines({{"adding an ACE, 100 ascending", [] { return add_aces(100, ascending); }},
                 {"adding an ACE, 10,000 ascending", [] { return add_aces(10000, ascending); }},
                 {"adding an ACE, 10,000 descending", [] { return add_aces(10000, descending); }},
                 {"adding an ACE, 10,000 random", [] { return add_aces(10000, shuffled); }},
                 {"adding an ACE, 100,000 ascending", [] { return add_aces(100000, ascending); }},
                 {"adding an ACE, 5,000,000 ascending", [] { return add_aces(5 * million, ascending); }}},
                "ns", rounds);
    print_lines({{"a fresh page of memory; 15 ACEs that end in zeros need one", fresh_page}}, "ns", rounds);
    print_lines({{"reading an ACE back, 2,500 in the ACL", [] { return read_back(2500); }},
                 {"reading an ACE back, 5,000 in the ACL", [] { return read_back(5000); }},
                 {"reading an ACE back, 10,000 in the ACL", [] { return read_back(10000); }}},
                "ns", rounds);
    print_lines(
        {{"a call id in and out of the id/type map, 1,000 held", [] { return id_in_and_out(1000); }},
         {"a call id in and out of the id/type map, 1,000,000 held", [] { return id_in_and_out(million); }}},
        "ns", rounds);
}

void print_memory() {
    print_lines({{"memory of a pending call of 5 bytes",
                  [] { return bytes_of_each(million, [] { save_calls(million); }); }}},
                "bytes", 1);
    print_lines({{"memory of an ACL", [] { return bytes_of_each(all_acls, [] { hold_acls(all_acls); }); }}},
                "bytes", 1);
    const auto memory_of_aces = [](u32 count, u8 last_byte) {
        be_registered();
        const std::vector<u32> order = ids(count, ascending);
        scc_ace_record ace{};
        ace.action[sizeof ace.action - 1] = last_byte;
        return bytes_of_each(count, [&] { fill_acl(order, ace); });
    };
    print_lines(
        {{"memory of an ACE that ends in zeros", [=] { return memory_of_aces(100000, 0); }},
         {"memory of an ACE that does not", [=] { return memory_of_aces(100000, 1); }},
         {"memory of an ACE that ends in zeros, 5,000,000", [=] { return memory_of_aces(5 * million, 0); }},
         {"memory of an ACE that does not, 5,000,000", [=] { return memory_of_aces(5 * million, 1); }}},
        "bytes", 1);
    print_lines({{"memory of an unanswered operation of the service",
                  [] {
                      return bytes_of_each(million, [] {
                          for (u32 id = 1; id <= million; ++id) {
                              _scc_ss_save_idtype(id, 1);
                          }
                      });
                  }}},
                "bytes", 1);
}

}  // namespace

// memory_bench [rounds]
int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    print_times(rounds);
    print_memory();
    return 0;
}
