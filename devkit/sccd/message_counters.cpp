#include "sccd/message_counters.h"

#include "common/frame.h"

namespace scc::sccd {

using devkit::answer_kind;
using devkit::byte_view;
using devkit::message_route;
using devkit::message_type;

void message_counters::message(const devkit::pcapng::packet_header& header, byte_view bytes) {
    const bool from_daemon = header.direction == devkit::pcapng::packet_direction::from_daemon;
    client_count& client = clients_[header.app];
    message_count& count = from_daemon ? client.sent : client.received;
    const auto frame = devkit::first_frame(bytes, static_cast<u32>(bytes.size()));
    ++count.messages;
    count.items += frame.items.size();
    count.bytes += bytes.size();
    for (const devkit::wire_item& item : frame.items) {
        if (from_daemon) {
            sent(client, item.type, item.value);
            continue;
        }
        const bool service = header.app == limits::service_app_id;
        received(header.app, client,
                 devkit::find_message(service ? message_route::report : message_route::request, item.type));
    }
}

void message_counters::received(u32 app, client_count& client, const message_type* type) {
    if (type == nullptr) {
        return;
    }
    ++requests_[type];
    if (app != 0 && type->answer == answer_kind::result) {
        ++client.unanswered;
    }
}

void message_counters::sent(client_count& client, u16 type, byte_view value) {
    if (type != msg::call_ret) {
        return;
    }
    ++results_[devkit::u32_at(value, 4)];
    if (client.unanswered > 0 && value.size() == 2 * sizeof(u32)) {
        --client.unanswered;
    }
}

}  // namespace scc::sccd
