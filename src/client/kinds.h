// The request kinds that are saved with pending calls: what a result belongs to.
#pragma once

#include "msg/protocol.h"

namespace scc::kind {

inline constexpr u32 acl_create = 31;
inline constexpr u32 acl_delete = 32;
inline constexpr u32 acl_add_ace = 33;
inline constexpr u32 acl_delete_ace = 34;
inline constexpr u32 acl_apply = 35;
inline constexpr u32 acl_unapply = 36;
inline constexpr u32 user_acl_apply = 37;
inline constexpr u32 user_acl_unapply = 38;
inline constexpr u32 user_acl_delete_vmsup = 39;
inline constexpr u32 acl_resequence = 40;
inline constexpr u32 filter_counter_reset = 41;
inline constexpr u32 acl_counter_reset = 42;
inline constexpr u32 ace_counter_reset = 43;
inline constexpr u32 nac_user = 27;
inline constexpr u32 last = 60;

}  // namespace scc::kind
