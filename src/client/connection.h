// Connecting, registering and unregistering: the exchanges with the daemon that make a connection.
#pragma once

#include "client/descriptors.h"
#include "msg/protocol.h"

namespace scc {

// The application's part of a registration request.
struct registration_identity {
    u32 app_id;
    u8 option;
};

[[nodiscard]] registration_identity identity_of_control_block();

// Connects what is not connected and registers on both sockets, through states 2 and 3. 0, a positive
// error number or the daemon's refusal; on failure nothing is closed yet. Logs in the name of function.
[[nodiscard]] u32 connect_and_register(const registration_identity& identity, u32 generation,
                                       const char* function);

// Whether the paths of both sockets can be formed; logs in the name of function when they cannot.
[[nodiscard]] bool can_form_socket_paths(const char* function);

// Unregisters for the exported call that function names, which holds the lock that it needs. Afterwards the
// library is unregistered, or registered as before. 0, 2001 or the exchange's error.
[[nodiscard]] u32 unregister_client(const char* function);

}  // namespace scc

extern "C" {
[[nodiscard]] int _scc_lib_client_connect(const char* prefix);
[[nodiscard]] int _scc_lib_client_close();
[[nodiscard]] scc::u32 _scc_lib_client_reg(int sync, const scc::registration_identity* identity);
[[nodiscard]] scc::u32 _scc_client_unreg(int fd, scc::u32 app_id, int sync);
// Connects and registers until it has succeeded (true) or the registration of the calling thread ended.
bool _scc_lib_svr_rereg();
void _scc_lib_svr_status_notify(scc::u32 status);
}
