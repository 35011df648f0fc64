#include "api/request.h"

namespace scc {

bool request::begin() {
    if (!call_.is_registered(row_.function)) {
        return false;
    }
    call_id_ = _scc_lib_call_id_get();
    return true;
}

u32 request::finish(const value_parts& saved, const value_parts& payload) {
    call_.holds_lock();
    const u32 error = save_call(call_id_, row_.kind, saved);
    return error != result::ok ? error : end(send_in_batch(0, row_.type, payload));
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
