#include <scclib.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <semaphore>

#include "peer.h"
#include "peers.h"

namespace peers {
namespace {

std::binary_semaphore g_registered{0};
std::atomic<std::uint64_t> g_received{0};

// The path is the library's own, below $TMPDIR.
void serve(const std::string& /*path*/) {
    bench::serve(bench::listen_in_runtime_directory(), {bench::answers::one_a_message});
}

class scclib_client : public client {
  public:
    scclib_client() {
        static scc_reg_info info{};
        info.app_id = 5;
        info.handlers.server_status = [](std::uint32_t status) {
            if (status == 1) {
                g_registered.release();
            }
        };
        info.handlers.d1x_port_open = [](std::uint32_t, std::uint32_t, const scc_config_record*) {
            // Seen by the requesting thread in groups.
            constexpr std::uint64_t group = 256;
            if (++g_received % group == 0) {
                g_received.notify_one();
            }
        };
        require(scc_svr_reg(&info) == 0, "scc_svr_reg");
        g_registered.acquire();
    }
    void stream(std::uint64_t requests) override {
        static const scc_config_record record{};
        const std::uint64_t before = g_received;
        for (std::uint64_t sent = 0; sent < requests; ++sent) {
            for (std::uint64_t now = g_received; sent - (now - before) >= most_outstanding;
                 now = g_received) {
                g_received.wait(now);
            }
            require(scc_d1x_port_open(&record, nullptr) == 0, "scc_d1x_port_open");
        }
        for (std::uint64_t now = g_received; now - before < requests; now = g_received) {
            // The last results come with the checker's flush, and may be less than a group.
            timespec pause{0, 50000};
            nanosleep(&pause, nullptr);
        }
    }
    void query() override {
        const std::array<std::uint8_t, 6> mac{2, 0, 0, 0, 0, 1};
        std::uint32_t ip = 0;
        require(scc_mac_query(mac.data(), &ip) == 0, "scc_mac_query");
    }
};

}  // namespace

const kind scclib_kind{"scclib", serve, [](const std::string& /*path*/) -> std::unique_ptr<client> {
                           return std::make_unique<scclib_client>();
                       }};

}  // namespace peers
