#include "client/locked_call.h"

#include "client/control_block.h"
#include "client/log.h"

namespace scc {

bool locked_call::is_registered(const char* function, int line) const {
    if (client_state_now() == state_registered) {
        return true;
    }
    if (is_debugging()) {
        SCC_LOG_RAW("DETAIL", "<%-23s line:%-4d> scclib no registered or scc svr no available.", function,
                    line);
    }
    return false;
}

}  // namespace scc
