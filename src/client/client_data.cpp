#include "client/client_data.h"

#include "client/acl_cache.h"
#include "client/pending_calls.h"

extern "C" void _scc_lib_data_free() {
    scc::free_pending_calls();
    scc::free_acl_cache();
}
