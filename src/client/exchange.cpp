#include "client/exchange.h"

#include <cstdlib>

#include "client/connection_scope.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

namespace scc {

exchange::exchange(channel which) : which_(which), state_(state_of(which)), epoch_(epoch_of_this_thread()) {
    pthread_mutex_lock(&state_.lock.handle);
}

exchange::~exchange() {
    pthread_mutex_unlock(&state_.lock.handle);
    _scc_msg_free(&reply_);
}

send_outcome exchange::send(u16 type, std::span<const u8> value) {
    has_lock();
    const send_outcome outcome = send_one_item(which_, epoch_, 0, type, {value});
    if (outcome.error == result::ok) {
        if (state_.owed_epoch != epoch_) {
            state_.owed_epoch = epoch_;
            state_.owed = 0;
        }
        ++state_.owed;
    }
    return outcome;
}

u32 exchange::receive() {
    has_lock();
    for (;;) {
        const received_message received = state_.reader.receive(which_, epoch_);
        if (received.end == message_end::not_reached) {
            return received.error;
        }
        if (--state_.owed != 0) {
            std::free(received.message);  // owed to an earlier exchange
            continue;
        }
        reply_ = received.message;
        if (reply_ != nullptr) {
            item first;
            item_reader reader(load<u16>(reply_, 5), static_cast<u8*>(reply_) + wire::header_bytes);
            (void)reader.next(first);
            type_ = first.type;
            value_ = first.value;
        }
        return received.error;
    }
}

}  // namespace scc
