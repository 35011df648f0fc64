// The daemon as a process: its listening sockets, its signals and the dispatch of received items. One
// thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "sccd/control.h"
#include "sccd/daemon_core.h"
#include "sccd/listener.h"
#include "sccd/state_file.h"

namespace scc::sccd {

struct daemon_options {
    std::string directory;  // holds the sockets
    bool trace = false;
    std::string state_file;  // empty: the state is not kept
    std::string scenario;    // a file of faults; empty: none
    std::chrono::milliseconds service_timeout{5000};
};

class development_daemon {
  public:
    // Creates the sockets. Throws std::runtime_error.
    explicit development_daemon(const daemon_options& options);
    ~development_daemon();
    development_daemon(const development_daemon&) = delete;
    development_daemon& operator=(const development_daemon&) = delete;

    // Returns after SIGTERM, SIGINT or the control command that ends the daemon.
    void run();
    // Makes run return. From a handler of the loop.
    void stop() { core_.loop.stop(); }

  private:
    void take_item(const client_entry& client, const devkit::wire_item& item);

    daemon_core core_;
    std::unique_ptr<state_file> state_;  // null if the state is not kept
    int signals_;  // blocked before the sockets exist, so that a signal never leaves them on the disk
    owned_event signalled_;
    socket_listener listener_;
    control_server control_;
};

}  // namespace scc::sccd
