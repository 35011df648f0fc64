#include "api/sync_exchange.h"

#include "msg/message.h"

namespace scc {

sync_exchange::~sync_exchange() {
    _scc_msg_free(&message_);
}

u32 sync_exchange::send(const exchange_row& row, std::span<const u8> payload) const {
    return _scc_lib_msg_send(row.request_type, payload.data(), static_cast<int>(payload.size()), 1);
}

u32 sync_exchange::receive(const exchange_row& row) {
    const u32 error = _scc_lib_msg_recv(&message_, 1);
    if (error != result::ok) {
        // The receive thread watches the other socket only, so it is told of this one's end.
        if (_scc_connect_should_reset(error)) {
            report_broken(epoch_of_this_thread());
        }
        return error;
    }
    item first;
    item_reader reader(load<u16>(message_, 5), static_cast<u8*>(message_) + wire::header_bytes);
    if (!reader.next(first) || first.type != row.reply_type) {
        SCC_LOG_FROM(function_, "msg type is not %s.", row.reply_name);
        return result::format;
    }
    value_ = first.value;
    return result::ok;
}

u32 sync_exchange::run(const exchange_row& row, std::span<const u8> payload) {
    const u32 error = send(row, payload);
    return error != result::ok ? error : receive(row);
}

}  // namespace scc
