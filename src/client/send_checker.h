// The send-buffer checker: one thread per process, which flushes the batch every 5 milliseconds.
#pragma once

extern "C" void* _scc_lib_send_buf_chk_thread(void* argument);
