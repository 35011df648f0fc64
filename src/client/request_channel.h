// Sends requests, answers and reports: in real time on the synchronous socket, through the batch on the
// asynchronous one.
#pragma once

#include "client/batch.h"
#include "client/connection_scope.h"
#include "client/send.h"
#include "msg/protocol.h"

extern "C" {
[[nodiscard]] scc::u32 _scc_lib_msg_send(scc::u16 type, const void* value, int len, int sync);
[[nodiscard]] scc::u32 _scc_lib_ss_msg_send(scc::u16 sub_id, scc::u16 type, const void* value, int len,
                                            int sync);
}
