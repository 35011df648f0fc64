#include "client/message_stream.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "client/log.h"
#include "msg/bytes.h"
#include "msg/result_codes.h"

namespace scc {

constexpr const char* function = "_scc_lib_msg_recv";

message_stream::~message_stream() {
    std::free(message_);
}

void message_stream::reset() {
    std::free(message_);
    message_ = nullptr;
    begin_ = end_ = length_ = filled_ = unwanted_ = 0;
}

void message_stream::consume(void* to, std::size_t count) {
    if (count != 0) {
        std::memcpy(to, buffer_ + begin_, count);
        begin_ += count;
    }
}

void message_stream::skip_unwanted() {
    const std::size_t count = std::min(unwanted_, buffered());
    begin_ += count;
    unwanted_ -= count;
}

u32 message_stream::begin_message() {
    u8 header[wire::header_bytes];
    consume(header, sizeof header);
    length_ = load<u32>(header);
    if (load<u16>(header, 5) == 0 || length_ <= wire::header_bytes) {
        SCC_LOG_FROM(function, "msg format error,no tlv.");
        return result::format;
    }
    message_ = static_cast<u8*>(std::malloc(length_));
    if (message_ == nullptr) {
        SCC_LOG_FROM(function, "alloc memory failed.");
        unwanted_ = length_ - wire::header_bytes;
        return result::no_memory;
    }
    std::memcpy(message_, header, sizeof header);
    filled_ = sizeof header;
    return result::ok;
}

u32 message_stream::finish_message(void** message) {
    u8* complete = message_;
    message_ = nullptr;
    if (!items_fit({complete, length_})) {
        SCC_LOG_FROM(function, "msg format error,items exceed msg. len:%zu.", length_);
        std::free(complete);
        return result::format;
    }
    *message = complete;
    return result::ok;
}

u32 message_stream::next(void** message) {
    *message = nullptr;
    skip_unwanted();
    if (message_ == nullptr) {
        if (buffered() < wire::header_bytes) {
            return result::ok;
        }
        if (const u32 error = begin_message(); error != result::ok) {
            return error;
        }
    }
    const std::size_t count = std::min(length_ - filled_, buffered());
    consume(message_ + filled_, count);
    filled_ += count;
    return filled_ == length_ ? finish_message(message) : result::ok;
}

u32 message_stream::fill(int fd) {
    std::memmove(buffer_, buffer_ + begin_, buffered());
    end_ = buffered();
    begin_ = 0;
    // The rest of a long message is read straight into its block.
    const bool direct = message_ != nullptr && length_ - filled_ > sizeof buffer_;
    u8* at = direct ? message_ + filled_ : buffer_ + end_;
    const std::size_t space = direct ? length_ - filled_ : sizeof buffer_ - end_;
    const ssize_t got = recv(fd, at, space, 0);
    if (got > 0) {
        (direct ? filled_ : end_) += static_cast<std::size_t>(got);
        return result::ok;
    }
    const u32 error = got == 0 ? result::peer_closed : static_cast<u32>(errno);
    if (message_ == nullptr) {
        SCC_LOG_FROM(function, "recv msg hdr error! syn:%d errno:%d.", 0, error);
    } else {
        SCC_LOG_FROM(function, "recv msg body error! errno:%d.", error);
    }
    return error;
}

}  // namespace scc
