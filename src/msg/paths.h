// Paths of the sockets and the debug file, all in $TMPDIR/security/scc.
#pragma once

#include "msg/protocol.h"
#include "scclib.h"

namespace scc {

struct path_buffer {
    char text[limits::path_bytes];
};

enum class path_base : int { runtime = 1, persistent = 2 };

inline constexpr const char* runtime_directory_suffix = "/security/scc";
inline constexpr const char* daemon_socket_suffix = "/security/scc/.sccd_sd_";
inline constexpr const char* sync_socket_suffix = "/security/scc/.sccl_sd1_";
inline constexpr const char* async_socket_suffix = "/security/scc/.sccl_sd2_";
inline constexpr const char* debug_file_suffix = "/security/scc/scclib_dbg.txt";

// scc_make_path into a buffer of the usual size.
[[nodiscard]] bool make_path(path_buffer& out, const char* suffix, path_base base = path_base::runtime);

}  // namespace scc
