// The wire format's builders and the socket loops. See protocol.h for the grammar.
#include "msg/message.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "msg/bytes.h"
#include "msg/result_codes.h"

namespace scc {

void write_header(void* message, u16 count, u32 length) {
    store<u32>(message, 0, length);
    store<u8>(message, 4, wire::version);
    store<u16>(message, 5, count);
    store<u8>(message, 7, 0);
}

void write_item_header(void* at, u32 length, u16 sub_id, u16 type) {
    store<u32>(at, 0, length);
    store<u16>(at, 4, sub_id);
    store<u16>(at, 6, type);
}

u32 send_counted(int fd, std::span<const u8> bytes, std::size_t& sent) {
    for (sent = 0; sent < bytes.size();) {
        // A daemon that vanished must not kill its client with SIGPIPE.
        const ssize_t count = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            return static_cast<u32>(errno);
        }
        sent += static_cast<std::size_t>(count);
    }
    return result::ok;
}

u32 receive_counted(int fd, std::span<u8> bytes, std::size_t& received) {
    while (received < bytes.size()) {
        const ssize_t count = recv(fd, bytes.data() + received, bytes.size() - received, 0);
        if (count == 0) {
            return result::peer_closed;
        }
        if (count < 0) {
            return static_cast<u32>(errno);
        }
        received += static_cast<std::size_t>(count);
    }
    return result::ok;
}

}  // namespace scc

using namespace scc;

extern "C" {

u32 _scc_msg_alloc(void** out, u32 size) {
    if (out == nullptr) {
        return result::invalid;
    }
    *out = std::calloc(1, size);
    return *out == nullptr ? result::no_memory : result::ok;
}

void _scc_msg_free(void** message) {
    if (message != nullptr) {
        std::free(*message);
        *message = nullptr;
    }
}

void _scc_msg_hdr_init(void* message, u8 version, u16 count, u32 length) {
    if (message == nullptr) {
        return;
    }
    std::memset(message, 0, length);
    store<u32>(message, 0, length);
    store<u8>(message, 4, version);
    store<u16>(message, 5, count);
}

u32 _scc_msg_tlv_add(void* message, const void* tlv) {
    if (message == nullptr || tlv == nullptr) {
        return result::invalid;
    }
    if (load<u16>(message, 5) == 0) {
        write_header(message, 0, wire::header_bytes);
    }
    const u32 length = load<u32>(message);
    const u64 entry = u64{load<u32>(tlv)} + wire::item_header_bytes;
    if (length + entry > wire::built_message_max_bytes) {
        return result::all_ones;
    }
    std::memcpy(static_cast<u8*>(message) + length, tlv, entry);
    store<u32>(message, 0, length + static_cast<u32>(entry));
    store<u16>(message, 5, static_cast<u16>(load<u16>(message, 5) + 1));
    return result::ok;
}

u32 _scc_msg_len_get(const void* message) {
    return message == nullptr ? 0 : load<u32>(message);
}

u32 _scc_msg_send(int fd, const void* bytes, int length) {
    if (bytes == nullptr || length < 1) {
        return result::ok;
    }
    std::size_t sent = 0;
    return send_counted(fd, {static_cast<const u8*>(bytes), static_cast<std::size_t>(length)}, sent);
}

u32 _scc_msg_hdr_recv(int fd, void* header) {
    std::size_t received = 0;
    return header == nullptr ? result::ok
                             : receive_counted(fd, {static_cast<u8*>(header), wire::header_bytes}, received);
}

u32 _scc_msg_body_recv(int fd, void* bytes, long length) {
    if (bytes == nullptr || length < 1) {
        return result::ok;
    }
    const std::span<u8> all{static_cast<u8*>(bytes), static_cast<std::size_t>(length)};
    std::memset(bytes, 0, all.size());
    std::size_t received = 0;
    return receive_counted(fd, all, received);
}

bool _scc_connect_should_reset(u32 error) {
    constexpr std::array<u32, 11> fatal = {EBADF,      EINVAL,    EPIPE,       ENOTSOCK,
                                           EOPNOTSUPP, ENETDOWN,  ENETUNREACH, ECONNRESET,
                                           ENOTCONN,   ETIMEDOUT, ECONNREFUSED};
    return std::ranges::find(fatal, error) != fatal.end();
}
}
