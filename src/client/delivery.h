// From bytes to handler arguments: what the tables of results and notifications are made of.
//
// A row names the handler and, for each of its arguments, where it lies in the bytes. The handler's own
// type is checked against the row at compile time.
#pragma once

#include <algorithm>
#include <type_traits>

#include "client/control_block.h"
#include "msg/bytes.h"

namespace scc {

// The bytes that a handler's arguments are taken from.
struct source {
    const u8* bytes;
    u32 length;
};

template <class T, std::size_t Offset>
struct integer_at {
    static constexpr std::size_t end = Offset + sizeof(T);
    static T read(const source& from) { return load<T>(from.bytes, Offset); }
    template <class Parameter>
    static constexpr bool fits = std::is_same_v<T, Parameter>;
};

template <std::size_t Offset>
using u8_at = integer_at<u8, Offset>;
template <std::size_t Offset>
using u16_at = integer_at<u16, Offset>;
template <std::size_t Offset>
using u32_at = integer_at<u32, Offset>;
template <std::size_t Offset>
using u64_at = integer_at<u64, Offset>;

// 1 when the whole word is not 0.
template <std::size_t Offset>
struct flag_at {
    static constexpr std::size_t end = Offset + sizeof(u32);
    static u8 read(const source& from) { return load<u32>(from.bytes, Offset) != 0 ? 1 : 0; }
    template <class Parameter>
    static constexpr bool fits = std::is_same_v<u8, Parameter>;
};

// A pointer into the bytes, of whatever type the handler takes.
struct pointer_value {
    const u8* at;
    template <class T>
    operator const T*() const  // NOLINT(google-explicit-constructor)
    {
        return reinterpret_cast<const T*>(at);
    }
};

template <std::size_t Offset>
struct pointer_at {
    static constexpr std::size_t end = Offset;
    static pointer_value read(const source& from) { return {from.bytes + Offset}; }
    template <class Parameter>
    static constexpr bool fits =
        std::is_pointer_v<Parameter>&& std::is_const_v<std::remove_pointer_t<Parameter>>;
};

using whole = pointer_at<0>;

// The number of bytes, as it was saved.
struct length_of_data {
    static constexpr std::size_t end = 0;
    static i32 read(const source& from) { return static_cast<i32>(from.length); }
    template <class Parameter>
    static constexpr bool fits = std::is_same_v<i32, Parameter>;
};

template <class... Arguments>
inline constexpr std::size_t bytes_read = std::max({std::size_t{0}, Arguments::end...});

template <class Handler, class... Leading>
struct signature;

template <class Return, class... Parameters>
struct signature<Return (*)(Parameters...)> {
    template <class... Arguments>
    static constexpr bool matches = (Arguments::template fits<Parameters> && ...);
    template <class... Arguments>
    static constexpr bool same_count = sizeof...(Arguments) == sizeof...(Parameters);
};

template <class Return, class... Parameters>
struct signature<Return (*)(u32, u32, Parameters...), u32, u32> : signature<Return (*)(Parameters...)> {};

template <auto Member>
using handler_of = std::remove_reference_t<decltype(g_scc_client_cb.handlers.*Member)>;

}  // namespace scc
