// Prints notifications as they arrive.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>

#include "common/standard_output.h"
#include "interrupt.h"
#include "notifications.h"
#include "program.h"

namespace scc::ctl {
namespace {

// How often a watch checks for an interrupt.
constexpr std::chrono::milliseconds interrupt_interval{100};

std::string time_text() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto micro = duration_cast<microseconds>(now.time_since_epoch()).count() % 1'000'000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}{:%z}", fmt::localtime(system_clock::to_time_t(now)), micro,
                       fmt::localtime(system_clock::to_time_t(now)));
}

void print_notification(const json& notification, const watch_options& options,
                        const output_options& output) {
    if (output.as_json) {
        json stamped = json::object();
        if (options.times) {
            stamped["time"] = time_text();
        }
        stamped.update(notification);
        return print(stamped, output);
    }
    const std::string line = notification_line(notification);
    print_text(options.times ? time_text() + " " + line : line);
}

json status_notification(std::uint32_t status) {
    return {{"notification", "server-status"}, {"status", status}};
}

// A field anywhere in the notification: "ifx" is found in {"user":{"ifx":3}}, too.
bool has_field(const json& value, const std::string& name, const std::string& wanted) {
    if (!value.is_structured()) {
        return false;
    }
    for (const auto& [field, content] : value.items()) {
        const std::string text = content.is_string() ? content.get<std::string>() : content.dump();
        if ((value.is_object() && field == name && text == wanted) || has_field(content, name, wanted)) {
            return true;
        }
    }
    return false;
}

bool wanted(const json& notification, const watch_options& options) {
    const auto& names = options.only;
    if (!names.empty() &&
        std::find(names.begin(), names.end(), notification.value("notification", "")) == names.end()) {
        return false;
    }
    return std::all_of(options.where.begin(), options.where.end(),
                       [&](const auto& field) { return has_field(notification, field.first, field.second); });
}

// Prints one event. Returns whether it counts as a notification.
bool print_event(const event& arrived, const watch_options& options, const output_options& output) {
    if (arrived.what == event::kind::status) {
        print_notification(status_notification(arrived.number), options, output);
        return false;
    }
    if (arrived.what != event::kind::notification || !wanted(arrived.notification, options)) {
        return false;
    }
    print_notification(arrived.notification, options, output);
    return true;
}

}  // namespace

int run_watch(context& within, const watch_options& options) {
    within.registration.notifications = true;
    return with_session(within, "watch", [&](session&) {
        catch_interrupts();
        print_notification(status_notification(1), options, within.output);
        const auto limit =
            std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(options.seconds));
        const auto until = steady::now() + limit;
        std::uint64_t seen = 0;
        while (!interrupted() && !devkit::output_failed() && (options.count == 0 || seen < options.count)) {
            const auto now = steady::now();
            if (options.seconds > 0 && now >= until) {
                return options.count == 0 ? exit_success : exit_unreachable;
            }
            const auto slice = now + interrupt_interval;
            const auto arrived = inbox::shared().take(options.seconds > 0 ? std::min(slice, until) : slice);
            if (arrived && print_event(*arrived, options, within.output)) {
                ++seen;
            }
        }
        return exit_success;
    });
}

}  // namespace scc::ctl
