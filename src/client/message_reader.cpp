// See message_reader.h.
#include "client/message_reader.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "client/connection_scope.h"
#include "client/locks.h"
#include "client/log.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

namespace scc {
namespace {

constexpr const char* function = "_scc_lib_msg_recv";

constinit std::array<channel_state, 2> g_channels{};

}  // namespace

channel_state& state_of(channel which) {
    return g_channels[static_cast<std::size_t>(which)];
}

void message_reader::begin_connection(u32 epoch) {
    std::free(message_);
    message_ = nullptr;
    filled_ = 0;
    unwanted_ = false;
    epoch_ = epoch;
}

u32 message_reader::read_header(int fd, int sync) {
    const u32 error = receive_counted(fd, header_, filled_);
    if (error != result::ok) {
        SCC_LOG_FROM(function, "recv msg hdr error! syn:%d errno:%d.", sync, error);
        return error;
    }
    const u32 length = load<u32>(header_);
    if (load<u16>(header_, 5) == 0 || length <= wire::header_bytes) {
        SCC_LOG_FROM(function, "msg format error,no tlv.");
        filled_ = 0;
        return result::format;
    }
    message_ = static_cast<u8*>(std::malloc(length));
    if (message_ == nullptr) {
        SCC_LOG_FROM(function, "alloc memory failed.");
        unwanted_ = true;
        return result::no_memory;
    }
    std::memcpy(message_, header_, sizeof header_);
    return result::ok;
}

u32 message_reader::read_body(int fd) {
    const u32 error = receive_counted(fd, {message_, load<u32>(header_)}, filled_);
    if (error != result::ok) {
        SCC_LOG_FROM(function, "recv msg body error! errno:%d.", error);
    }
    return error;
}

u32 message_reader::read_past_body(int fd) {
    const std::size_t length = load<u32>(header_);
    u8 scrap[512];
    while (filled_ < length) {
        std::size_t done = 0;
        const u32 error = receive_counted(fd, {scrap, std::min(length - filled_, sizeof scrap)}, done);
        filled_ += done;
        if (error != result::ok) {
            return error;
        }
    }
    filled_ = 0;
    unwanted_ = false;
    return result::ok;
}

received_message message_reader::finish() {
    u8* message = message_;
    message_ = nullptr;
    filled_ = 0;
    const std::size_t length = load<u32>(header_);
    if (!items_fit({message, length})) {
        SCC_LOG_FROM(function, "msg format error,items exceed msg. len:%zu.", length);
        std::free(message);
        return {result::format, nullptr, message_end::dropped};
    }
    return {result::ok, message, message_end::whole};
}

received_message message_reader::receive(channel which, u32 epoch) {
    const borrowed_descriptor borrowed(which, epoch);
    if (borrowed.epoch() != epoch_) {
        begin_connection(borrowed.epoch());
    }
    const received_message received = read_message(which, borrowed.fd());
    // The stream has ended: the rest of a partial message will not come.
    if (borrowed.fd() >= 0 && _scc_connect_should_reset(received.error)) {
        begin_connection(epoch_);
    }
    return received;
}

received_message message_reader::read_message(channel which, int fd) {
    // The rest of a message that an earlier read had no memory for.
    if (unwanted_) {
        if (const u32 error = read_past_body(fd); error != result::ok) {
            return {error, nullptr, message_end::not_reached};
        }
    }
    if (message_ == nullptr) {
        const u32 error = read_header(fd, static_cast<int>(which));
        if (unwanted_) {
            (void)read_past_body(fd);
            return {error, nullptr, message_end::refused};
        }
        if (error != result::ok) {
            return {error, nullptr,
                    error == result::format ? message_end::refused : message_end::not_reached};
        }
    }
    const u32 error = read_body(fd);
    return error == result::ok ? finish() : received_message{error, nullptr, message_end::not_reached};
}

received_message receive_message(channel which, u32 epoch) {
    channel_state& state = state_of(which);
    const mutex_guard guard(state.lock);
    return state.reader.receive(which, epoch);
}

}  // namespace scc

extern "C" scc::u32 _scc_lib_msg_recv(void** out, int sync) {
    const scc::received_message received =
        scc::receive_message(scc::channel_of(sync), scc::epoch_of_this_thread());
    *out = received.message;
    return received.error;
}
