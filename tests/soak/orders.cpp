#include "soak/orders.h"

#include <cstdio>
#include <string>

#include "common/control_client.h"

namespace soak {
namespace {

using scc::devkit::control_call;

constexpr std::uint16_t result_type = 401;

// The value of a result in hexadecimal: the call id, then 0 for success.
std::string result_of(std::uint32_t call_id) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&call_id);
    char hex[17];
    std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x00000000", bytes[0], bytes[1], bytes[2], bytes[3]);
    return hex;
}

}  // namespace

std::map<std::uint32_t, pid_t> registered_clients() {
    const auto answer = control_call({{"do", "clients"}});
    std::map<std::uint32_t, pid_t> pids;
    if (answer.contains("clients")) {
        for (const auto& entry : answer["clients"]) {
            if (entry["sync"] == true && entry["async"] == true) {
                pids[entry["app"]] = entry["pid"];
            }
        }
    }
    return pids;
}

std::size_t notify_all(std::uint32_t number) {
    const auto answer =
        control_call({{"do", "notify-named"}, {"name", "authmode"}, {"to", 0}, {"mode", number}});
    return answer.value("sent", std::size_t{0});
}

bool send_result(std::uint32_t app_id, std::uint32_t call_id) {
    const auto answer =
        control_call({{"do", "notify"}, {"type", result_type}, {"to", app_id}, {"hex", result_of(call_id)}});
    return answer.value("ok", false);
}

}  // namespace soak
