#include "api/request.h"

namespace scc {

bool request::begin() {
    if (!call_.is_registered(row_.function)) {
        return false;
    }
    call_id_ = _scc_lib_call_id_get();
    return true;
}

u32 request::send(const value_parts& payload) {
    const u32 error = send_in_batch(0, row_.type, payload);
    // Also when the connection was lost after the state check and its calls were dropped. The thread that
    // drops them ends the epoch and then looks for calls; this one saves its call and then looks for the
    // epoch. The lock of the batch lies in between, so that one of the two sees what the other has done.
    if (error != result::ok || epoch_of_this_thread() != connection_epoch()) {
        _scc_lib_del_call_data(call_id_);
    }
    if (call_id_out_ != nullptr) {
        *call_id_out_ = call_id_;
    }
    if (row_.statistics != not_counted) {
        count_call(row_.statistics, error == result::ok);
    }
    return error;
}

u32 request::finish(const value_parts& saved, const value_parts& payload) {
    call_.holds_lock();
    const u32 error = save_call(call_id_, row_.kind, saved);
    return error != result::ok ? error : send(payload);
}

u32 record_request(const request_row& row, const scc_config_record* record, u32* call_id_out) {
    if (record == nullptr) {
        SCC_LOG_FROM(row.function, "scclib param invalid.");
        return result::invalid;
    }
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    const record_head head(call.call_id());
    return call.finish({bytes_of(*record)}, {head.bytes, bytes_of(*record)});
}

}  // namespace scc
