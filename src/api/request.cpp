#include "api/request.h"

namespace scc {

bool locked_call::is_registered(const char* function, int line) {
    if (client_state_now() == state_registered) {
        return true;
    }
    if (is_debugging()) {
        SCC_LOG_RAW("DETAIL", "<%-23s line:%-4d> scclib no registered or scc svr no available.", function,
                    line);
    }
    return false;
}

bool request::begin() {
    if (!call_.is_registered(row_.function)) {
        return false;
    }
    call_id_ = _scc_lib_call_id_get();
    return true;
}

u32 request::save(std::span<const u8> saved) {
    return _scc_lib_save_call_data(call_id_, row_.kind, saved.data(), static_cast<int>(saved.size()));
}

u32 request::send(std::span<const u8> payload) {
    // The connection ended behind the state test, and its calls were dropped: so is this one.
    if (epoch_of_this_thread() != connection_epoch()) {
        _scc_lib_del_call_data(call_id_);
    }
    const u32 error = _scc_lib_msg_send(row_.type, payload.data(), static_cast<int>(payload.size()), 0);
    if (error != result::ok) {
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

u32 request::finish(std::span<const u8> saved, std::span<const u8> payload) {
    const u32 error = save(saved);
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
    payload<record_payload_bytes> sent(call.call_id());
    sent.put(record_payload_offset, *record);
    return call.finish(bytes_of(*record), sent.bytes);
}

}  // namespace scc
