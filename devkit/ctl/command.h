// A row of the command table: name, library function, arguments, and the handler of the result.
//
// request<>, query<> and local<> make rows. From the function's and the handler's own types they derive
// how arguments are passed and results are returned, so a row states only what the types cannot express:
// names, ranges and help.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "arguments.h"
#include "inbox.h"
#include "scclib.h"

namespace scc::ctl {

class acl_book;

enum class call_kind : std::uint8_t {
    request,  // asynchronous: the result reaches a handler with the call's id
    one_way,  // not answered
    query,    // the daemon answers before the call returns
    local,    // needs no registration
};

// A value that a call writes through one of its pointers.
struct out_value {
    std::string_view name;
    value_type type = value_type::number;
};

struct command {
    std::string_view name;      // "acl create": the words that the user types
    std::string_view function;  // the library's function
    std::string_view help;
    std::string_view example;  // the arguments after "sccctl NAME"
    call_kind kind = call_kind::request;
    std::vector<argument> arguments;
    std::vector<out_value> outs;
    std::vector<std::size_t> record_bytes;  // of each record parameter
    std::uint32_t (*call)(call_values&) = nullptr;
    std::vector<void (*)(scc_handlers&)> install;                // the handlers of the result
    void (*confirmed)(acl_book&, const call_values&) = nullptr;  // for a confirmed ACL change

    std::string_view reset_row;         // the row that --reset runs instead
    std::string_view absent_hint = {};  // what to do when a single command finds no such ACL

    // The number of the record that --field and --hex write to, or no_record.
    [[nodiscard]] int open_record() const;
};

// Every row, in the order of the help text.
[[nodiscard]] const std::vector<command>& commands();
[[nodiscard]] std::vector<command> config_commands();
[[nodiscard]] std::vector<command> acl_commands();
[[nodiscard]] std::vector<command> query_commands();

namespace detail {

struct cursor {
    std::size_t scalar = 0;
    std::size_t record = 0;
};

template <typename T>
inline constexpr bool is_record = std::is_class_v<T>&& std::is_trivially_copyable_v<T>;

// Holds one parameter during the call.
template <typename Parameter, typename = void>
struct holder;

template <typename Number>
struct holder<Number, std::enable_if_t<std::is_integral_v<Number>>> {
    Number value;
    holder(call_values& values, cursor& next)
        : value(static_cast<Number>(values.scalars.at(next.scalar++))) {}
    Number pass() { return value; }
    void give_back(call_values&) {}
};

template <typename Number>
struct holder<Number*, std::enable_if_t<std::is_integral_v<Number> && !std::is_const_v<Number>>> {
    Number value{};
    holder(call_values&, cursor&) {}
    Number* pass() { return &value; }
    void give_back(call_values& values) { values.outs.push_back(static_cast<std::uint64_t>(value)); }
};

template <typename Record>
struct holder<Record*, std::enable_if_t<is_record<std::remove_const_t<Record>>>> {
    std::remove_const_t<Record> value{};
    std::size_t index;
    holder(call_values& values, cursor& next) : index(next.record++) {
        std::memcpy(&value, values.records.at(index).data(), sizeof value);
    }
    Record* pass() { return &value; }
    void give_back(call_values& values) { std::memcpy(values.records[index].data(), &value, sizeof value); }
};

// A MAC address.
template <>
struct holder<const std::uint8_t*> {
    const std::uint8_t* value;
    holder(call_values& values, cursor& next) : value(values.records.at(next.record++).data()) {}
    const std::uint8_t* pass() { return value; }
    void give_back(call_values&) {}
};

// Bytes of any length.
template <>
struct holder<const byte_buffer*> {
    const byte_buffer* value;
    holder(call_values& values, cursor& next) : value(&values.records.at(next.record++)) {}
    const byte_buffer* pass() { return value; }
    void give_back(call_values&) {}
};

// Additional output of a special call.
template <>
struct holder<json*> {
    json value = json::object();
    holder(call_values&, cursor&) {}
    json* pass() { return &value; }
    void give_back(call_values& values) { values.more = std::move(value); }
};

template <typename Parameter>
void add_record_bytes(std::vector<std::size_t>& sizes) {
    if constexpr (std::is_pointer_v<Parameter>) {
        using target = std::remove_const_t<std::remove_pointer_t<Parameter>>;
        if constexpr (is_record<target>) {
            sizes.push_back(sizeof(target));
        }
        if constexpr (std::is_same_v<Parameter, const std::uint8_t*>) {
            sizes.push_back(6);
        }
        if constexpr (std::is_same_v<Parameter, const byte_buffer*>) {
            sizes.push_back(0);
        }
    }
}

template <typename... Parameters>
std::vector<std::size_t> record_bytes_of(std::uint32_t (*)(Parameters...)) {
    std::vector<std::size_t> sizes;
    (add_record_bytes<Parameters>(sizes), ...);
    return sizes;
}

template <typename... Parameters>
std::uint32_t call_with(std::uint32_t (*function)(Parameters...), call_values& values) {
    cursor next;
    // Braces fix the order: each holder takes the next scalar or record.
    std::tuple<holder<Parameters>...> holders{holder<Parameters>(values, next)...};
    return std::apply(
        [&](auto&... each) {
            const std::uint32_t result = function(each.pass()...);
            (each.give_back(values), ...);
            return result;
        },
        holders);
}

template <auto Function>
std::uint32_t call_function(call_values& values) {
    return call_with(Function, values);
}

template <typename Number>
requires std::is_integral_v<Number>
void add_delivered(call_values& values, Number number) {
    values.scalars.push_back(number);
}

template <typename Record>
void add_delivered(call_values& values, const Record* record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(record);
    values.records.emplace_back(bytes, bytes + sizeof *record);
}

template <auto Slot, typename Type = decltype(Slot)>
struct result_handler;

template <auto Slot, typename... Fields>
struct result_handler<Slot, void (*scc_handlers::*)(std::uint32_t, std::uint32_t, Fields...)> {
    static void deliver(std::uint32_t result, std::uint32_t call_id, Fields... fields) {
        call_values values;
        (add_delivered(values, fields), ...);
        inbox::shared().put_result(result, call_id, std::move(values));
    }
    static void install(scc_handlers& handlers) { handlers.*Slot = &deliver; }
};

// The one handler with data of variable length.
template <auto Slot>
struct result_handler<Slot,
                      void (*scc_handlers::*)(std::uint32_t, std::uint32_t, const void*, std::int32_t)> {
    static void deliver(std::uint32_t result, std::uint32_t call_id, const void* data, std::int32_t len) {
        call_values values;
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        values.records.emplace_back(bytes, bytes + len);
        inbox::shared().put_result(result, call_id, std::move(values));
    }
    static void install(scc_handlers& handlers) { handlers.*Slot = &deliver; }
};

template <auto Function>
command row(call_kind kind, std::string_view name, std::string_view function, std::string_view help,
            std::string_view example, std::vector<argument> arguments, std::vector<out_value> outs) {
    return {.name = name,
            .function = function,
            .help = help,
            .example = example,
            .kind = kind,
            .arguments = std::move(arguments),
            .outs = std::move(outs),
            .record_bytes = record_bytes_of(Function),
            .call = &call_function<Function>,
            .install = {},
            .confirmed = nullptr,
            .reset_row = {}};
}

}  // namespace detail

// A request whose result reaches the handlers Slots. Its last parameter is the call id.
template <auto Function, auto... Slots>
command request(std::string_view name, std::string_view function, std::string_view help,
                std::string_view example, std::vector<argument> arguments) {
    command made = detail::row<Function>(call_kind::request, name, function, help, example,
                                         std::move(arguments), {{"call-id"}});
    made.install = {&detail::result_handler<Slots>::install...};
    return made;
}

template <auto Function>
command one_way(std::string_view name, std::string_view function, std::string_view help,
                std::string_view example, std::vector<argument> arguments) {
    return detail::row<Function>(call_kind::one_way, name, function, help, example, std::move(arguments), {});
}

template <auto Function>
command query(std::string_view name, std::string_view function, std::string_view help,
              std::string_view example, std::vector<argument> arguments, std::vector<out_value> outs) {
    return detail::row<Function>(call_kind::query, name, function, help, example, std::move(arguments),
                                 std::move(outs));
}

template <auto Function>
command local(std::string_view name, std::string_view function, std::string_view help,
              std::string_view example, std::vector<argument> arguments, std::vector<out_value> outs) {
    return detail::row<Function>(call_kind::local, name, function, help, example, std::move(arguments),
                                 std::move(outs));
}

}  // namespace scc::ctl
