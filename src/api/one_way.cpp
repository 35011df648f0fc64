// Messages that have no call id and get no result. Any thread; each takes scc_lib_lock.
#include "api/request.h"

using namespace scc;

extern "C" {

uint32_t scc_warterline_notify(int start) {
    SCC_LOG("notify waterline %s.", start != 0 ? "start" : "end");
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    const u32 error = _scc_lib_msg_send(msg::water_line, &start, sizeof start, 1);
    if (error != result::ok) {
        SCC_LOG("call _scc_lib_msg_send failed. rv:%d.", error);
    }
    return error;
}

uint32_t scc_test_cmd_set(uint32_t command) {
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    return _scc_lib_msg_send(msg::test_cmd, &command, sizeof command, 0);
}

uint32_t scc_data_recover(int argument) {
    locked_call call;
    if (!call.is_registered()) {
        return result::unavailable;
    }
    payload<16> sent(0);
    sent.put(4, g_scc_client_cb.app_id.load(relaxed)).put(8, argument);
    const u32 error = _scc_lib_msg_send(msg::data_recover, sent.bytes.data(), sent.bytes.size(), 0);
    count_call(stat_data_recover, error == result::ok);
    return error;
}
}
