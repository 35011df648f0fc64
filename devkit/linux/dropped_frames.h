// Which frames an interface that is closed for port security drops. The rule before the one that drops them
// tells the kernel's packet log (NFLOG), whose group one process of a network namespace can read.
//
// Not thread-safe.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ace/ace_layout.h"
#include "common/bytes.h"

struct mnl_socket;

namespace scc::kernel {

inline constexpr u16 dropped_group = 1484;
// The kernel tells of no more than that, so that a flood of frames costs little.
inline constexpr u64 dropped_max_per_second = 100;

struct dropped_frame {
    unsigned kernel_index = 0;
    u16 vid = 0;  // 0: untagged
    ace::mac_bytes source{};
};

class dropped_frames {
  public:
    // Opens the log. Without it there are no frames; problem() says why.
    dropped_frames();

    // Whether this kernel has a packet log that rules can use.
    [[nodiscard]] static bool are_told();

    [[nodiscard]] const std::string& problem() const { return problem_; }
    // Readable when there are frames; -1 if the log is not open.
    [[nodiscard]] int descriptor() const;
    // Those that came since the last call.
    [[nodiscard]] std::vector<dropped_frame> take();

  private:
    struct socket_closer {
        void operator()(mnl_socket* socket) const;
    };

    std::unique_ptr<mnl_socket, socket_closer> socket_;
    std::string problem_;
};

// Lets each station of an interface through once a second.
class once_a_second {
  public:
    using clock = std::chrono::steady_clock;

    [[nodiscard]] bool allows(u32 ifx, const ace::mac_bytes& mac, clock::time_point now);
    [[nodiscard]] std::size_t known() const { return latest_.size(); }

  private:
    std::map<std::pair<u32, ace::mac_bytes>, clock::time_point> latest_;
    clock::time_point next_cleaning_{};
};

}  // namespace scc::kernel
