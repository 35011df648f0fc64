#include "sccd/trace.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>

#include "common/standard_output.h"

namespace scc::sccd {
namespace {

void write_line(const std::string& text) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto micro = duration_cast<microseconds>(now.time_since_epoch()).count() % 1'000'000;
    const std::string line =
        fmt::format("{:%H:%M:%S}.{:06} {}\n", fmt::localtime(system_clock::to_time_t(now)), micro, text);
    devkit::print_output(line);
}

void write_item(std::string_view arrow, devkit::message_route route, u32 app, std::string_view socket,
                const devkit::wire_item& item, devkit::trace_detail detail) {
    write_line(fmt::format("{} app={} {} {}", arrow, app, socket, devkit::describe(route, item, detail)));
}

}  // namespace

void trace_log::received(devkit::message_route route, u32 app, std::string_view socket,
                         const devkit::wire_item& item) const {
    if (enabled_) {
        write_item("<-", route, app, socket, item, detail_);
    }
}

void trace_log::sent(devkit::message_route route, u32 app, std::string_view socket,
                     const devkit::wire_item& item) const {
    if (enabled_) {
        write_item("->", route, app, socket, item, detail_);
    }
}

void trace_log::note(const std::string& text) const {
    if (enabled_) {
        write_line("-- " + text);
    }
}

}  // namespace scc::sccd
