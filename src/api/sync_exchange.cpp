#include "api/sync_exchange.h"

#include "msg/message.h"

namespace scc {

u32 sync_exchange::send(const exchange_row& row, std::span<const u8> payload) {
    const send_outcome outcome = exchange_.send(row.request_type, payload);
    if (outcome.built && outcome.error != result::ok) {
        recover_from_failed_send(outcome, exchange_.epoch(), "_scc_lib_msg_send_rt");
    }
    return outcome.error;
}

u32 sync_exchange::receive(const exchange_row& row) {
    const u32 error = exchange_.receive();
    if (error != result::ok) {
        // The receive thread watches only the other socket, so it must be told that this one failed.
        if (_scc_connect_should_reset(error)) {
            report_broken(exchange_.epoch());
        }
        return error;
    }
    if (exchange_.type() != row.reply_type) {
        SCC_LOG_FROM(function_, "msg type is not %s.", row.reply_name);
        return result::format;
    }
    return result::ok;
}

u32 sync_exchange::query(const exchange_row& row, std::span<const u8> payload) {
    const u32 error = send(row, payload);
    return error != result::ok ? error : receive(row);
}

}  // namespace scc
