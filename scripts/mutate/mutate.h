// What a mutated copy of the library calls (rewrite.py inserts the calls). Each site has an identifier and
// one or more alternatives: a process that runs with SCC_MUTANT=id of one of them takes it, all others do
// what was written. Nothing changes while a constant is evaluated by the compiler.
#pragma once

#if defined(__cplusplus) && __cplusplus > 201703L  // CMake tries the compiler with an earlier one
#include <type_traits>

namespace mutate {

extern int active;              // the alternative that this process takes, -1 for none
extern unsigned char* reached;  // null, or one byte for each identifier: the site was executed

// 0 for what was written, otherwise the number of the alternative.
constexpr int chosen(int id, int alternatives) {
    if (std::is_constant_evaluated()) {
        return 0;
    }
    if (reached != nullptr) {
        reached[id] = 1;
    }
    const int number = active - id + 1;
    return active >= id && number <= alternatives ? number : 0;
}

constexpr bool on(int id) {
    return chosen(id, 1) != 0;
}

template <class T>
constexpr bool flip(int id, T&& value) {
    const bool changed = on(id);
    return static_cast<bool>(value) != changed;
}

#define MUTATE_COMPARE(name, written, first, second) \
    template <class A, class B>                      \
    constexpr bool name(int id, A a, B b) {          \
        switch (chosen(id, 2)) {                     \
            case 1:                                  \
                return a first b;                    \
            case 2:                                  \
                return a second b;                   \
            default:                                 \
                return a written b;                  \
        }                                            \
    }
MUTATE_COMPARE(less, <, <=, >=)
MUTATE_COMPARE(less_equal, <=, <, >)
MUTATE_COMPARE(greater, >, >=, <=)
MUTATE_COMPARE(greater_equal, >=, >, <)

#define MUTATE_BINARY(name, written, other)            \
    template <class A, class B>                        \
    constexpr auto name(int id, A a, B b) {            \
        using type = decltype(a written b);            \
        return on(id) ? type(a other b) : a written b; \
    }
MUTATE_BINARY(equal, ==, !=)
MUTATE_BINARY(not_equal, !=, ==)
MUTATE_BINARY(plus, +, -)
MUTATE_BINARY(minus, -, +)
MUTATE_BINARY(shift_left, <<, >>)
MUTATE_BINARY(shift_right, >>, <<)
MUTATE_BINARY(bit_and, &, |)
MUTATE_BINARY(bit_or, |, &)
MUTATE_BINARY(bit_xor, ^, &)
MUTATE_BINARY(divide, /, *)
MUTATE_BINARY(modulo, %, *)

template <class A, class B>
constexpr auto multiply(int id, A a, B b) {
    using type = decltype(a * b);
    return on(id) ? (b == 0 ? type(a) : type(a / b)) : a * b;
}

#define MUTATE_ASSIGN(name, written, other) \
    template <class A, class B>             \
    constexpr A& name(int id, A& a, B b) {  \
        if (on(id)) {                       \
            a other b;                      \
        } else {                            \
            a written b;                    \
        }                                   \
        return a;                           \
    }
MUTATE_ASSIGN(plus_assign, +=, -=)
MUTATE_ASSIGN(minus_assign, -=, +=)
MUTATE_ASSIGN(multiply_assign, *=, +=)
MUTATE_ASSIGN(divide_assign, /=, *=)
MUTATE_ASSIGN(modulo_assign, %=, *=)
MUTATE_ASSIGN(and_assign, &=, |=)
MUTATE_ASSIGN(or_assign, |=, &=)
MUTATE_ASSIGN(xor_assign, ^=, |=)
MUTATE_ASSIGN(shift_left_assign, <<=, >>=)
MUTATE_ASSIGN(shift_right_assign, >>=, <<=)

template <class A>
constexpr A& increment(int id, A& a) {
    return on(id) ? --a : ++a;
}

template <class A>
constexpr A& decrement(int id, A& a) {
    return on(id) ? ++a : --a;
}

template <class A>
constexpr A negative(int id, A a) {
    return on(id) ? a : static_cast<A>(-a);
}

template <class A>
constexpr auto complement(int id, A a) {
    using type = decltype(~a);
    return on(id) ? type(a) : ~a;
}

template <class T>
constexpr T next_of(T value) {
    if constexpr (std::is_enum_v<T>) {
        return static_cast<T>(static_cast<std::underlying_type_t<T>>(value) + 1);
    } else {
        return static_cast<T>(value + 1);
    }
}

// A constant: one more.
template <class T>
constexpr T one_more(int id, T value) {
    return on(id) ? next_of(value) : value;
}

// A constant other than 0 and 1: one more, and zero.
template <class T>
constexpr T constant(int id, T value) {
    const int number = chosen(id, 2);
    return number == 1 ? next_of(value) : number == 2 ? T{} : value;
}

// A returned number: another error, and success.
template <class T>
constexpr T other_result(T value) {
    return value == T{} ? static_cast<T>(22) : next_of(value);
}

template <class T>
constexpr T returned(int id, T value) {
    const int number = chosen(id, 2);
    return number == 1 ? other_result(value) : number == 2 ? T{} : value;
}

template <class T>
constexpr T returned_zero(int id, T value) {
    return on(id) ? other_result(value) : value;
}

template <class T>
constexpr T returned_pointer(int id, T value) {
    return on(id) ? T{} : value;
}

template <class A, class B>
constexpr A either(int id, A a, B b) {
    return on(id) ? (A)(b) : a;
}

}  // namespace mutate
#endif
