// The items that the library itself handles: liveness, statistics, the device's capability word.
#pragma once

extern "C" {
void _scc_lib_is_alive_proc(const void* value);
void _scc_lib_info_collect_proc(const void* value);
void _scc_lib_dev_cap_proc(const void* value);
}
