// How long the value of each received item must be: the one list for applications and the service. What a
// value announces itself, a list with its count, must be there before its function runs: handlers are
// promised whole records and lists.
#pragma once

#include <algorithm>
#include <array>

#include "client/diagnostics.h"
#include "msg/bytes.h"

namespace scc {

struct value_length {
    u32 fixed_bytes;
    // A list that follows the fixed bytes: a u32 among them counts its entries.
    u32 count_offset = 0;
    u32 entry_bytes = 0;  // 0: no list
    // For the one type whose content decides.
    bool (*fits)(const u8* value, u64 length) = nullptr;
};

struct value_length_row {
    u16 type;
    value_length least;
};

// clang-format off
inline constexpr std::array value_lengths = std::to_array<value_length_row>({
    {msg::d1x_addr_move,         {8, 4, record::address_move}},
    {msg::nac_user,              {80}},
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
    {msg::offline_detect_notify, {16}},
    {msg::station_move,          {5}},
    {msg::flow,                  {80}},
    {msg::noflow_offline,        {88, 80, 1}},
    {msg::direct_vlan_notify,    {8 + record::direct_vlan}},
    {msg::authmode,              {8}},
    {msg::dirchn,                {12}},
    {msg::port_violate_notify,   {61}},
    {msg::user_roll,             {24}},
    {msg::water_line,            {4}},
    {msg::acl_counter_get,       {36}},
    {msg::ace_counter_get,       {36}},
    {msg::info_collect,          {0}},
    {msg::is_alive,              {0}},
    {msg::call_ret,              {8}},
    {msg::dev_cap,               {8}},
    {msg::ace_counter,           {24, 20, record::ace_counter}},
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

// In 64 bits: a count of the peer's times the size of an entry does not wrap.
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
