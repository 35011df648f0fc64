// What a group lets its daemon do, over the control socket below TMPDIR. The daemon must be running.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>

namespace soak {

// The pid of each app id that is registered on both sockets.
std::map<std::uint32_t, pid_t> registered_clients();
// Sends every application a notification that carries a number. Returns how many got it.
std::size_t notify_all(std::uint32_t number);
// Sends an application a result of success for a call id. Returns whether it went out.
bool send_result(std::uint32_t app_id, std::uint32_t call_id);

}  // namespace soak
