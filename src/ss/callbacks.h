// The callbacks that send the results of the service's operations to the daemon, message 402. Any thread,
// with or without scc_lib_lock held, so they do not take it; they take the id/type map's scc_ss_lock.
#pragma once

#include "msg/protocol.h"

extern "C" {
void _scc_ss_acl_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_ace_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_acl_apply_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_acl_reseq_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_svi_router_acl_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_acl_counter_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_ace_counter_op_ret_callback(const void* record, scc::u32 size);
void _scc_ss_global_eport_ret_callback(const void* record, scc::u32 size);
void _scc_ss_cpp_ret_callback(const void* record, scc::u32 size);
void _scc_ss_data_recover_callback(scc::u32 result, scc::u32 call_id);
[[nodiscard]] scc::u32 _scc_nacm_callback_send(scc::u32 result, scc::u32 call_id, scc::u32 type);
}
