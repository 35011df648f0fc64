// Notifications of the daemon, each to its handler. All run on the thread that receives; no lock.
#pragma once

extern "C" {
void _scc_lib_d1x_addr_move_notify_proc(const void* value);
void _scc_lib_user_chg_notify_proc(const void* value);
void _scc_lib_offline_detect_cfg_notify_proc(const void* value);
void _scc_lib_station_move_notify_proc(const void* value);
void _scc_lib_flow_notify_proc(const void* value);
void _scc_lib_noflow_offline_notify_proc(const void* value);
void _scc_lib_direct_vlan_notify_proc(const void* value);
void _scc_lib_authmode_notify_proc(const void* value);
void _scc_lib_dirchn_notify_proc(const void* value);
void _scc_lib_sp_violate_notify_proc(const void* value);
void _scc_lib_user_roll_notify_proc(const void* value);
void _scc_lib_water_line_notify_proc(const void* value);
void _scc_lib_ace_counter_proc(const void* value);
}
