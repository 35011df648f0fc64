// The service's counters, for diagnostics. Any thread, no lock: the counters are relaxed atomics. The block
// is null until a service has registered.
#include <array>

#include "ss/service.h"

namespace scc {
namespace {

// In the order of counter_pair; the last is an end mark.
// clang-format off
constexpr std::array<const char*, operation_counts + 1> counter_names = {
    "total", "recover", "debug", "acl", "ace", "apply", "reseq", "svi", "acl_stat", "ace_stat",
    "direct-vlan", "authmode", "gbl_eport", "cpp", "offline_cfg", "app", "def_read", "l4port", "user",
    "user_read", "user_reinstall", "app_recover", "l4port_recover", "app_with", "test_cmd", "sslib_max",
};
// clang-format on

static_assert(pair_test_cmd + 1 == operation_counts);

service_statistics* block() {
    return __atomic_load_n(&ss_stat, __ATOMIC_RELAXED);
}

}  // namespace

void count_received(u32 pair, u32 number) {
    if (block() != nullptr) {
        __atomic_fetch_add(&(*block())[pair].received, number, __ATOMIC_RELAXED);
    }
}

void count_answered(u32 pair) {
    if (block() != nullptr) {
        __atomic_fetch_add(&(*block())[pair].answered, 1, __ATOMIC_RELAXED);
    }
}

void count_result(u32 pair) {
    count_answered(pair);
    count_answered(pair_total);
}

operation_count read_count(u32 pair) {
    if (block() == nullptr) {
        return {0, 0};
    }
    return {__atomic_load_n(&(*block())[pair].received, __ATOMIC_RELAXED),
            __atomic_load_n(&(*block())[pair].answered, __ATOMIC_RELAXED)};
}

const char* counter_name(u32 pair) {
    return counter_names[pair];
}

}  // namespace scc
