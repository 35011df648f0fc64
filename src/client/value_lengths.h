// How long the value of each received item must be: the one list for applications and the service. A list
// whose count is in the value must be complete before the item's function runs: handlers are promised whole
// records and lists.
#pragma once

#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "client/notifications.h"
#include "msg/bytes.h"

namespace scc {

struct value_length {
    u32 fixed_bytes;
    // A list that follows the fixed bytes: a u32 among them counts its entries.
    u32 count_offset = 0;
    u32 entry_bytes = 0;  // 0: no list
    // For the one type whose length depends on its content.
    bool (*fits)(const u8* value, u64 length) = nullptr;

    bool operator==(const value_length&) const = default;
};

struct value_length_row {
    u16 type;
    value_length least;
};

// What a field of a notification needs, including the record that a pointer leads to. Untyped records count
// nothing, lists of them bytes.
template <class Field, class Parameter>
inline constexpr value_length extent{Field::end};
template <std::size_t At, class Record>
inline constexpr value_length extent<pointer_at<At>, const Record*>{At + sizeof(Record)};
template <std::size_t At>
inline constexpr value_length extent<pointer_at<At>, const void*>{At};
template <std::size_t At, std::size_t Count, class Record>
inline constexpr value_length extent<list_at<At, Count>, const Record*>{At, Count, sizeof(Record)};
template <std::size_t At, std::size_t Count>
inline constexpr value_length extent<list_at<At, Count>, const void*>{At, Count, 1};

template <class Logged, class... Fields, class Return, class... Parameters>
consteval value_length total_extent(fields<Fields...> /*arguments*/, Return (* /*handler*/)(Parameters...)) {
    constexpr value_length least{
        std::max({u32{Logged::end}, extent<Fields, Parameters>.fixed_bytes...}),
        std::max({u32{0}, extent<Fields, Parameters>.count_offset...}),
        std::max({u32{0}, extent<Fields, Parameters>.entry_bytes...}),
    };
    static_assert(((extent<Fields, Parameters>.entry_bytes == 0 || Fields::end == least.fixed_bytes) && ...),
                  "a list begins at the end of the fixed bytes");
    return least;
}

template <class Row>
consteval value_length_row needed_by() {
    constexpr auto arguments = typename Row::arguments{};
    return {Row::type, total_extent<typename Row::logged>(arguments, handler_of<Row::handler>{})};
}

// clang-format off
inline constexpr std::array value_lengths = std::to_array<value_length_row>({
    needed_by<notification::d1x_addr_move>(),
    needed_by<notification::user_change>(),
    {msg::acl,                   {140}},
    {msg::ace,                   {940}},
    {msg::acl_apply,             {244}},
    {msg::acl_resequence,        {28}},
    {msg::acl_counter_reset,     {36}},
    {msg::ace_counter_reset,     {36}},
    {msg::global_eport,          {12}},
    {msg::svi_router_acl,        {8}},
    {msg::nacm_app,              {16}},
    {msg::nacm_def_read,         {12}},
    {msg::nacm_l4port,           {20}},
    {msg::nacm_user,             {8 + record::service_user}},
    {msg::nacm_user_read,        {8 + record::service_user}},
    {msg::nacm_user_reinstall,   {12}},
    {msg::nacm_app_user_recover, {16, 12, record::service_user}},
    {msg::nacm_l4port_recover,   {4, 0, sizeof(u32)}},
    {msg::nacm_app_with_vid,     {24}},
    {msg::cpp,                   {12}},
    {msg::data_recover,          {9}},
    {msg::test_cmd,              {4}},
    {msg::debug,                 {36, 0, 0, debug_command_fits}},
    needed_by<notification::offline_detect>(),
    needed_by<notification::station_move>(),
    needed_by<notification::flow>(),
    needed_by<notification::noflow_offline>(),
    needed_by<notification::direct_vlan>(),
    needed_by<notification::authmode>(),
    needed_by<notification::dirchn>(),
    needed_by<notification::port_violation>(),
    needed_by<notification::user_roll>(),
    needed_by<notification::water_line>(),
    {msg::acl_counter_get,       {36}},
    {msg::ace_counter_get,       {36}},
    {msg::info_collect,          {0}},
    {msg::is_alive,              {0}},
    {msg::call_ret,              {8}},
    {msg::dev_cap,               {8}},
    needed_by<notification::ace_counters>(),
});
// clang-format on

static_assert(std::ranges::is_sorted(value_lengths, {}, &value_length_row::type) &&
              std::ranges::adjacent_find(value_lengths, {}, &value_length_row::type) == value_lengths.end());
static_assert(std::ranges::all_of(value_lengths, [](const value_length_row& row) {
    return row.least.entry_bytes == 0 || row.least.count_offset + sizeof(u32) <= row.least.fixed_bytes;
}));

// For the rows of the dispatchers; a type that is not in the list does not compile.
[[nodiscard]] consteval value_length length_of(u16 type) {
    return std::ranges::find(value_lengths, type, &value_length_row::type)->least;
}

// In 64 bits, so that the peer's count times the size of an entry does not wrap.
[[nodiscard]] inline bool is_long_enough(const value_length& least, std::span<const u8> value) {
    if (value.size() < least.fixed_bytes) {
        return false;
    }
    if (least.fits != nullptr) {
        return least.fits(value.data(), value.size());
    }
    const u64 entries = least.entry_bytes == 0 ? 0 : load<u32>(value.data(), least.count_offset);
    return value.size() >= least.fixed_bytes + entries * least.entry_bytes;
}

}  // namespace scc
