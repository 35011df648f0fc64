// The result codes that the library itself produces; scclib.h lists all.
#pragma once

#include "msg/protocol.h"

namespace scc::result {

inline constexpr u32 ok = 0;
inline constexpr u32 no_entry = 2;
inline constexpr u32 io_error = 5;
inline constexpr u32 bad_descriptor = 9;
inline constexpr u32 try_again = 11;
inline constexpr u32 no_memory = 12;
inline constexpr u32 not_directory = 20;
inline constexpr u32 invalid = 22;
inline constexpr u32 no_space = 28;
inline constexpr u32 peer_closed = 32;
inline constexpr u32 unregister_rejected = 2001;
inline constexpr u32 unavailable = 2004;
inline constexpr u32 no_acl = 2005;
inline constexpr u32 no_ace = 2006;
inline constexpr u32 format = 2007;
inline constexpr u32 no_data_query = 2013;
inline constexpr u32 first_own = 2000;
inline constexpr u32 last_own = 2020;
inline constexpr u32 all_ones = 0xFFFFFFFFU;

}  // namespace scc::result
