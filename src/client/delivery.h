// From bytes to handler arguments, for the tables of results and notifications.
//
// A row names a handler and, for each argument, the field of the bytes that it is taken from. The handler's
// type is checked against the fields at compile time.
#pragma once

#include <algorithm>
#include <type_traits>

#include "client/control_block.h"
#include "msg/bytes.h"

namespace scc {

template <class T, std::size_t Offset>
struct integer_at {
    static constexpr std::size_t end = Offset + sizeof(T);
    static T read(std::span<const u8> from) { return load<T>(from.data(), Offset); }
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
    static u8 read(std::span<const u8> from) { return load<u32>(from.data(), Offset) != 0 ? 1 : 0; }
    template <class Parameter>
    static constexpr bool fits = std::is_same_v<u8, Parameter>;
};

// Converts to a pointer to the record that the handler takes.
struct record_pointer {
    const u8* bytes;
    template <class Record>
    operator const Record*() const  // NOLINT(google-explicit-constructor)
    {
        return reinterpret_cast<const Record*>(bytes);
    }
};

template <std::size_t Offset>
struct pointer_at {
    static constexpr std::size_t end = Offset;
    static record_pointer read(std::span<const u8> from) { return {from.data() + Offset}; }
    template <class Parameter>
    static constexpr bool fits =
        std::is_pointer_v<Parameter>&& std::is_const_v<std::remove_pointer_t<Parameter>>;
};

using whole_record = pointer_at<0>;

// A pointer to the first of the records that the u32 at CountOffset counts.
template <std::size_t Offset, std::size_t CountOffset>
struct list_at : pointer_at<Offset> {};

template <std::size_t Offset>
struct mac_at : pointer_at<Offset> {
    static constexpr std::size_t end = Offset + 6;
};

struct length_of_data {
    static constexpr std::size_t end = 0;
    static i32 read(std::span<const u8> from) { return static_cast<i32>(from.size()); }
    template <class Parameter>
    static constexpr bool fits = std::is_same_v<i32, Parameter>;
};

template <class... Fields>
struct fields {
    // Without the records that pointers lead to.
    static constexpr std::size_t end = std::max({std::size_t{0}, Fields::end...});

    template <class Function, class... Leading>
    static auto pass_to(const Function& function, [[maybe_unused]] std::span<const u8> from,
                        Leading... leading) {
        return function(leading..., Fields::read(from)...);
    }
};

// Whether the handler takes exactly these arguments.
template <class... Fields, class Return, class... Parameters>
consteval bool fit(fields<Fields...> /*arguments*/, Return (* /*handler*/)(Parameters...)) {
    if constexpr (sizeof...(Fields) == sizeof...(Parameters)) {
        return (Fields::template fits<Parameters> && ...);
    }
    return false;
}

template <auto Handler>
using handler_of = std::remove_reference_t<decltype(g_scc_client_cb.handlers.*Handler)>;

}  // namespace scc
