// Copies the application's handlers into the control block at registration, and clears them.
#pragma once

#include "scclib.h"

extern "C" {
void _scc_lib_handler_set(const scc_reg_info* info);
void _scc_lib_handler_clear();
}
