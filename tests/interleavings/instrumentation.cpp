// The functions that the compiler calls at each memory access under -fsanitize=thread. The library and the
// programs are compiled with that option and linked with these instead of the sanitizer's run-time library.
#include <cstddef>
#include <cstdint>

#include "memory.h"

using namespace interleavings;

// The compiler defines the names.
// NOLINTBEGIN
#define CODE __builtin_return_address(0)

#define PLAIN(size)                                    \
    void __tsan_read##size(void* at) {                 \
        plain_access(at, size, false, CODE);           \
    }                                                  \
    void __tsan_write##size(void* at) {                \
        plain_access(at, size, true, CODE);            \
    }                                                  \
    void __tsan_unaligned_read##size(void* at) {       \
        plain_access(at, size, false, CODE);           \
    }                                                  \
    void __tsan_unaligned_write##size(void* at) {      \
        plain_access(at, size, true, CODE);            \
    }                                                  \
    void __tsan_read_write##size(void* at) {           \
        plain_access(at, size, true, CODE);            \
    }                                                  \
    void __tsan_unaligned_read_write##size(void* at) { \
        plain_access(at, size, true, CODE);            \
    }                                                  \
    void __tsan_volatile_read##size(void* at) {        \
        plain_access(at, size, false, CODE);           \
    }                                                  \
    void __tsan_volatile_write##size(void* at) {       \
        plain_access(at, size, true, CODE);            \
    }

#define CHANGE(bits, name, expression)                                                                       \
    std::uint##bits##_t __tsan_atomic##bits##_##name(volatile void* at, std::uint##bits##_t with, int how) { \
        return static_cast<std::uint##bits##_t>(atomic_change(                                               \
            at, bits / 8, with,                                                                              \
            [](std::uint64_t old, std::uint64_t operand) -> std::uint64_t {                                  \
                (void)old;                                                                                   \
                return expression;                                                                           \
            },                                                                                               \
            static_cast<order>(how), CODE));                                                                 \
    }

#define ATOMIC(bits)                                                                                       \
    std::uint##bits##_t __tsan_atomic##bits##_load(const volatile void* at, int how) {                     \
        return static_cast<std::uint##bits##_t>(atomic_load(at, bits / 8, static_cast<order>(how), CODE)); \
    }                                                                                                      \
    void __tsan_atomic##bits##_store(volatile void* at, std::uint##bits##_t value, int how) {              \
        atomic_store(at, bits / 8, value, static_cast<order>(how), CODE);                                  \
    }                                                                                                      \
    CHANGE(bits, exchange, operand)                                                                        \
    CHANGE(bits, fetch_add, old + operand)                                                                 \
    CHANGE(bits, fetch_sub, old - operand)                                                                 \
    CHANGE(bits, fetch_and, old& operand)                                                                  \
    CHANGE(bits, fetch_or, old | operand)                                                                  \
    CHANGE(bits, fetch_xor, old ^ operand)                                                                 \
    bool __tsan_atomic##bits##_compare_exchange_strong(volatile void* at, std::uint##bits##_t* expected,   \
                                                       std::uint##bits##_t desired, int success,           \
                                                       int failure) {                                      \
        std::uint64_t compared = *expected;                                                                \
        const bool equal =                                                                                 \
            atomic_compare_exchange(at, bits / 8, compared, desired, static_cast<order>(success),          \
                                    static_cast<order>(failure), CODE);                                    \
        *expected = static_cast<std::uint##bits##_t>(compared);                                            \
        return equal;                                                                                      \
    }                                                                                                      \
    std::uint##bits##_t __tsan_atomic##bits##_compare_exchange_val(                                        \
        volatile void* at, std::uint##bits##_t expected, std::uint##bits##_t desired, int success,         \
        int failure) {                                                                                     \
        std::uint64_t compared = expected;                                                                 \
        (void)atomic_compare_exchange(at, bits / 8, compared, desired, static_cast<order>(success),        \
                                      static_cast<order>(failure), CODE);                                  \
        return static_cast<std::uint##bits##_t>(compared);                                                 \
    }

extern "C" {

void __tsan_init() {}
void __tsan_func_entry(void* /*from*/) {}
void __tsan_func_exit() {}
void __tsan_vptr_read(void** /*at*/) {}
void __tsan_vptr_update(void** /*at*/, void* /*value*/) {}
void __tsan_read_range(void* at, std::size_t size) {
    plain_access(at, size, false, CODE);
}
void __tsan_write_range(void* at, std::size_t size) {
    plain_access(at, size, true, CODE);
}
void __tsan_atomic_thread_fence(int how) {
    atomic_fence(static_cast<order>(how));
}
void __tsan_atomic_signal_fence(int /*how*/) {}

PLAIN(1)
PLAIN(2)
PLAIN(4)
PLAIN(8)
PLAIN(16)

ATOMIC(8)
ATOMIC(16)
ATOMIC(32)
ATOMIC(64)
}
// NOLINTEND
