// The application's handler table: copying it in at registration, and clearing it.
#pragma once

#include "scclib.h"

extern "C" {
void _scc_lib_handler_set(const scc_reg_info* info);
void _scc_lib_handler_clear();
}
