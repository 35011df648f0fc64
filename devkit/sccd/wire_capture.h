// Passes every message of the clients' sockets, whole and in both directions, to a file and to those who
// follow it on the control socket. common/pcapng.h describes the format. One thread.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "common/pcapng.h"

namespace scc::sccd {

class wire_capture {
  public:
    // Takes whole blocks. Returns false to leave one out, which the next packet reports as lost.
    using block_sink = std::function<bool(devkit::byte_view)>;
    using sink_id = u64;

    // Begins a capture with its first blocks.
    sink_id attach(block_sink sink);
    void detach(sink_id id) { sinks_.erase(id); }
    // Creates the file, or empties it. If it cannot be written later, the capture ends with one line on
    // standard error; the file then ends with its last whole block. Throws std::runtime_error.
    void attach_file(const std::string& path);

    [[nodiscard]] bool active() const { return !sinks_.empty(); }
    void message(const devkit::pcapng::packet_header& header, devkit::byte_view bytes);

  private:
    struct attached_sink {
        block_sink write;
        u64 lost = 0;
    };

    std::map<sink_id, attached_sink> sinks_;
    sink_id last_sink_ = 0;
};

}  // namespace scc::sccd
