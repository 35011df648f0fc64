/* The C file's interface for the tests. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Calls every function of the public header; the text of the first check that fails, or null. */
const char* header_promise_that_is_broken(void);

#ifdef __cplusplus
}
#endif
