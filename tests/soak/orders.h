// The commands that a group gives its daemon, over the control socket below TMPDIR. The daemon must be
// running.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>

namespace soak {

// The pid of each app id that is registered on both sockets.
std::map<std::uint32_t, pid_t> registered_clients();
// Makes the daemon send every application a notification that carries a number. Returns how many got it.
std::size_t notify_all(std::uint32_t number);
// Makes the daemon send an application a success result for a call id. Returns whether it was sent.
bool send_result(std::uint32_t app_id, std::uint32_t call_id);

}  // namespace soak
