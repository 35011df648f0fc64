// How costs grow with the number of entries: pending calls, the ACL cache, the id/type map. In memory,
// without sockets, on the library's internal functions.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/control_block.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "client/results.h"
#include "ss/id_map.h"

namespace {

using namespace scc;

enum sequence { ascending, descending, shuffled };

std::vector<u32> ids(std::size_t count, int how) {
    std::vector<u32> out(count);
    std::iota(out.begin(), out.end(), 1U);
    if (how == descending) {
        std::reverse(out.begin(), out.end());
    } else if (how == shuffled) {
        std::shuffle(out.begin(), out.end(), std::mt19937{1});
    }
    return out;
}

// Delivers a result (its handler is missing), then repeats the call, so that the number pending is constant.
void deliver_result(benchmark::State& state) {
    _scc_lib_data_init();
    const auto pending = static_cast<std::size_t>(state.range(0));
    const u8 saved[5] = {};
    for (u32 id = 1; id <= pending; ++id) {
        (void)_scc_lib_save_call_data(id, 23, saved, sizeof saved);
    }
    grow_pending_index();
    const std::vector<u32> order = ids(pending, static_cast<int>(state.range(1)));
    std::size_t next = 0;
    for (auto _ : state) {
        const u32 value[2] = {order[next], 0};
        _scc_lib_call_ret_proc(value);
        (void)_scc_lib_save_call_data(order[next], 23, saved, sizeof saved);
        next = next + 1 == pending ? 0 : next + 1;
    }
    _scc_lib_data_free();
}
BENCHMARK(deliver_result)
    ->Args({10, ascending})
    ->Args({1000000, ascending})
    ->Args({1000000, descending})
    ->Args({1000000, shuffled});

u32 hold_acls(const benchmark::State& state) {
    const auto held = static_cast<u32>(state.range(0));
    for (u32 id = 1; id <= held; ++id) {
        const scc_acl_key key{0, 3, id, 0};
        _scc_lib_acl_add(&key);
    }
    return held;
}

void look_up_acl(benchmark::State& state) {
    _scc_lib_data_init();
    const u32 held = hold_acls(state);
    u32 id = 0;
    for (auto _ : state) {
        id = id % held + 1;
        const scc_acl_key key{0, 3, id, 0};
        const write_guard guard(acl_lock);
        benchmark::DoNotOptimize(_scc_acl_get(&key));
    }
    _scc_lib_data_free();
}
BENCHMARK(look_up_acl)->Arg(10)->Arg(32768);

// The same through the interface, locks included, reading the ACL that was found.
void read_acl_class(benchmark::State& state) {
    _scc_lib_data_init();
    g_scc_client_cb.state.store(state_registered);
    g_scc_client_cb.option.store(1);
    const u32 held = hold_acls(state);
    u32 id = 0;
    for (auto _ : state) {
        id = id % held + 1;
        scc_acl_key key{0, 3, id, 0};
        benchmark::DoNotOptimize(scc_acl_cls_get(&key));
    }
    _scc_lib_data_free();
}
BENCHMARK(read_acl_class)->Arg(10)->Arg(32768);

void add_ace(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::vector<u32> order = ids(count, static_cast<int>(state.range(1)));
    const scc_acl_key key{0, 3, 1, 0};
    scc_ace_record ace{};
    for (auto _ : state) {
        _scc_lib_data_init();
        _scc_lib_acl_add(&key);
        for (const u32 sn : order) {
            ace.sn = sn;
            _scc_lib_ace_add(&key, &ace);
        }
        state.PauseTiming();
        _scc_lib_data_free();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}
BENCHMARK(add_ace)
    ->Args({100, ascending})
    ->Args({10000, ascending})
    ->Args({10000, descending})
    ->Args({10000, shuffled});

// Per ACE read back: constant if the whole is linear.
void read_back(benchmark::State& state) {
    _scc_lib_data_init();
    g_scc_client_cb.state.store(state_registered);
    g_scc_client_cb.option.store(1);
    const auto count = static_cast<u32>(state.range(0));
    scc_acl_key key{0, 3, 1, 0};
    _scc_lib_acl_add(&key);
    scc_ace_record ace{};
    for (u32 sn = 1; sn <= count; ++sn) {
        ace.sn = sn;
        _scc_lib_ace_add(&key, &ace);
    }
    for (auto _ : state) {
        scc_list_head list;
        if (scc_acl_get_ace(&key, &list) != 0) {
            state.SkipWithError("not read back");
            break;
        }
        for (scc_list_head* at = list.next; at != &list;) {
            scc_list_head* gone = at;
            at = at->next;
            std::free(gone);
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
    _scc_lib_data_free();
}
BENCHMARK(read_back)->Arg(2500)->Arg(5000)->Arg(10000);

void id_map(benchmark::State& state) {
    empty_id_map();
    const auto held = static_cast<u32>(state.range(0));
    for (u32 id = 1; id <= held; ++id) {
        _scc_ss_save_idtype(id, 1);
    }
    u32 id = 0;
    for (auto _ : state) {
        id = id % held + 1;
        benchmark::DoNotOptimize(_scc_ss_get_type(id));
        _scc_ss_save_idtype(id, 1);
    }
    empty_id_map();
}
BENCHMARK(id_map)->Arg(1000)->Arg(1000000);

}  // namespace

// Keeps the allocator from returning memory to the system, which is not the library's cost.
int main(int argc, char** argv) {
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
