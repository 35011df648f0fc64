// Messages and the blocking socket loops that move them. No state, no locks; a buffer belongs to its
// caller. Results are 0, an errno number, 32 for a peer that closed, 22, 12, or all ones from an append
// that would pass the size limit.
#pragma once

#include <cstddef>
#include <span>

#include "msg/protocol.h"

extern "C" {

[[nodiscard]] scc::u32 _scc_msg_alloc(void** out, scc::u32 size);
void _scc_msg_free(void** message);
void _scc_msg_hdr_init(void* message, scc::u8 version, scc::u16 count, scc::u32 length);
[[nodiscard]] scc::u32 _scc_msg_tlv_add(void* message, const void* tlv);
[[nodiscard]] scc::u32 _scc_msg_len_get(const void* message);
[[nodiscard]] scc::u32 _scc_msg_send(int fd, const void* bytes, int length);
[[nodiscard]] scc::u32 _scc_msg_hdr_recv(int fd, void* header);
[[nodiscard]] scc::u32 _scc_msg_body_recv(int fd, void* bytes, long length);
[[nodiscard]] bool _scc_connect_should_reset(scc::u32 error);
}

namespace scc {

// Writes the 8 bytes of a message header; what follows them stays as it is.
void write_header(void* message, u16 count, u32 length);
// Sends all bytes; sent is the number that went out, even on failure. 0 or the error.
[[nodiscard]] u32 send_counted(int fd, std::span<const u8> bytes, std::size_t& sent);
// Receives until all bytes from `received` on are there, and counts also those before an error.
[[nodiscard]] u32 receive_counted(int fd, std::span<u8> bytes, std::size_t& received);
void write_item_header(void* at, u32 length, u16 sub_id, u16 type);

}  // namespace scc
