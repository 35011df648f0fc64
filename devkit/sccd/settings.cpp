#include "sccd/settings.h"

namespace scc::sccd {

bool daemon_settings::nothing_for_service() const {
    return egress_ports.empty() && !router_acl && cpu_protection.empty() && nac_apps.empty() &&
           http_ports.empty() && !offline_detection && !direct_vlan;
}

}  // namespace scc::sccd
