#include "linux/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "common/number_option.h"

namespace scc::kernel {
namespace {

constexpr int exit_usage = 2;

}  // namespace

std::optional<options> parse_options(int argc, char** argv, int* exit_code) {
    CLI::App app("Security service that programs the kernel's packet filter");
    app.set_version_flag("--version", "scc-ss-linux " SCC_VERSION_TEXT);
    options parsed;
    std::string map_path;
    constexpr u32 seconds_max = 86'400;
    CLI::Option* const map =
        app.add_option("--map", map_path, "Which interface of the kernel each interface index is")
            ->type_name("FILE");
    app.add_flag("--flush", parsed.flush, "Remove all of the service's rules from the kernel, and exit")
        ->excludes(map);
    app.add_option("--report", parsed.report_seconds, "Report hits and flows every SECONDS; 0: never")
        ->transform(devkit::number_within(0, seconds_max))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("-v,--verbose", parsed.verbose, "Print each operation");
    try {
        app.parse(argc, argv);
        if (!parsed.flush && map_path.empty()) {
            throw CLI::RequiredError("--map");
        }
    } catch (const CLI::ParseError& error) {
        *exit_code = app.exit(error) == 0 ? 0 : exit_usage;
        return std::nullopt;
    }
    if (!parsed.flush) {
        std::string error;
        std::optional<interface_map> read = read_interface_map(map_path, error);
        if (!read) {
            fmt::print(stderr, "scc-ss-linux: {}\n", error);
            *exit_code = EXIT_FAILURE;
            return std::nullopt;
        }
        parsed.map = std::move(*read);
    }
    return parsed;
}

}  // namespace scc::kernel
