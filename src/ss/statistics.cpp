// The service's counters. Diagnostics only; null until a service has registered.
#include "client/control_block.h"
#include "ss/service.h"

namespace scc {
namespace {

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

}  // namespace scc
