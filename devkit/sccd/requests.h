// Requests of the applications: configuration, ACLs, users, queries. Every known type is answered; those
// that read or change the daemon's state have a row in the table of requests.cpp.
#pragma once

#include "sccd/daemon_core.h"

namespace scc::sccd {

void take_request(daemon_core& daemon, const client_entry& client, const devkit::wire_item& item);

}  // namespace scc::sccd
