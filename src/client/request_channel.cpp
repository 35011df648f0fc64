#include "client/request_channel.h"

using namespace scc;

extern "C" {

u32 _scc_lib_msg_send(u16 type, const void* value, int len, int sync) {
    return _scc_lib_ss_msg_send(0, type, value, len, sync);
}

u32 _scc_lib_ss_msg_send(u16 sub_id, u16 type, const void* value, int len, int sync) {
    return sync == 1 ? _scc_lib_msg_send_rt(sub_id, type, value, len, 1)
                     : _scc_lib_msg_send_bt(sub_id, type, value, len, 0);
}
}
