// The service's operations, one function per message type. The dispatcher calls them on the processing
// thread, with no lock held, and ignores their result.
#pragma once

#include "msg/protocol.h"

extern "C" {
scc::i32 _scc_ss_acl_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_ace_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_acl_apply_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_acl_reseq_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_svi_router_acl_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_acl_counter_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_ace_counter_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_global_eport_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_cpp_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_data_recover_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_offline_detect_cfg_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_ss_test_cmd_proc(scc::u16 scc_type, const void* value);

scc::i32 _scc_nacm_app_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_app_withvid_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_def_read(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_l4port_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_user_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_user_read(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_user_reinstall_op(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_app_user_recover(scc::u16 scc_type, const void* value);
scc::i32 _scc_nacm_l4port_recover(scc::u16 scc_type, const void* value);
}
