#include "sccd/metrics_dump.h"

namespace scc::sccd {
namespace {

json shown(const message_count& count) {
    return {{"messages", count.messages}, {"items", count.items}, {"bytes", count.bytes}};
}

json shown_clients(daemon_core& daemon) {
    json list = json::array();
    for (const auto& [app, count] : daemon.message_counts.clients()) {
        const client_entry* const client = daemon.clients.registry().find_app(app);
        list.push_back({{"app", app},
                        {"pid", client == nullptr ? 0 : client->pid},
                        {"registered", client != nullptr},
                        {"received", shown(count.received)},
                        {"sent", shown(count.sent)},
                        {"unanswered", count.unanswered},
                        {"queued_bytes", client == nullptr ? 0 : daemon.clients.queued_bytes(client->id)}});
    }
    return list;
}

json shown_requests(const message_counters& counters) {
    json list = json::array();
    for (const auto& [type, count] : counters.requests()) {
        list.push_back({{"type", type->number}, {"name", type->name}, {"count", count}});
    }
    return list;
}

json shown_results(const message_counters& counters) {
    json list = json::array();
    for (const auto& [result, count] : counters.results()) {
        list.push_back({{"result", result},
                        {"name", devkit::name_of(devkit::names::results, result)},
                        {"count", count}});
    }
    return list;
}

json shown_state(const daemon_core& daemon) {
    std::size_t aces = 0;
    for (const auto& [key, acl] : daemon.acls.acls()) {
        aces += acl.aces.size();
    }
    return {{"acls", daemon.acls.acls().size()},
            {"aces", aces},
            {"users", daemon.users.users().size()},
            {"arp_entries", daemon.users.arp_entries().size()}};
}

}  // namespace

json dump_metrics(daemon_core& daemon) {
    const std::chrono::duration<double> started = daemon.message_counts.started_at().time_since_epoch();
    return {{"version", SCC_VERSION_TEXT},
            {"started_at", started.count()},
            {"running_for", daemon.message_counts.running_for().count()},
            {"service", daemon.bridge.present()},
            {"held", shown_state(daemon)},
            {"clients", shown_clients(daemon)},
            {"requests", shown_requests(daemon.message_counts)},
            {"results", shown_results(daemon.message_counts)}};
}

}  // namespace scc::sccd
