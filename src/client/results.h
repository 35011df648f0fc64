// Results of asynchronous requests: item 401 to the handler of the request's kind.
#pragma once

extern "C" void _scc_lib_call_ret_proc(const void* value);
