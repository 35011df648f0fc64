// Captures of the wire in the pcapng format.
//
//   file   := section interface packet*
//   packet := an enhanced packet block with the time in nanoseconds; its data are a header and one message
//
//   header := u8 version (1)
//             u8 direction (0 to the daemon, 1 from the daemon)
//             u8 socket (0 not registered yet, 1 synchronous, 2 asynchronous)
//             u8 zero
//             u32 app id (0 if none is registered)
//             u32 process id of the client                                      12 bytes
//
// The link type is the first of those that are free for private use. All numbers are in host byte order,
// which the section's first bytes state for readers. Stateless; any thread.
#pragma once

#include "common/bytes.h"

namespace scc::devkit::pcapng {

inline constexpr u16 link_type = 147;  // LINKTYPE_USER0
inline constexpr u8 header_version = 1;
inline constexpr std::size_t header_bytes = 12;

enum class packet_direction : u8 { to_daemon = 0, from_daemon = 1 };
enum class packet_socket : u8 { unregistered = 0, sync = 1, async = 2 };

struct packet_header {
    packet_direction direction{};
    packet_socket socket{};
    u32 app = 0;
    u32 pid = 0;
};

// The section and its interface, with which a capture begins.
[[nodiscard]] byte_buffer beginning(std::string_view program);
// `lost` packets have been left out since the last one.
[[nodiscard]] byte_buffer packet(u64 time_ns, const packet_header& header, byte_view message, u64 lost = 0);

}  // namespace scc::devkit::pcapng
