#include "service/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <utility>
#include <vector>

#include "ace/ace_text.h"
#include "common/number_option.h"
#include "service/capture.h"

namespace scc::service {
namespace {

constexpr int exit_usage = 2;

// "A:B", two numbers with upper limits.
std::pair<u32, u32> number_pair(const CLI::Option& option, const std::string& text, u32 first_max,
                                u32 second_max) {
    const std::size_t colon = text.find(':');
    const auto number = [&](const std::string& digits, u32 max) {
        const auto parsed = ace::parse_number(digits, 0, max);
        if (!parsed) {
            throw CLI::ValidationError(option.get_name(), devkit::number_problem(digits, 0, max));
        }
        return static_cast<u32>(*parsed);
    };
    if (colon == std::string::npos) {
        throw CLI::ValidationError(option.get_name(),
                                   fmt::format("'{}' is not {}", text, option.get_type_name()));
    }
    return {number(text.substr(0, colon), first_max), number(text.substr(colon + 1), second_max)};
}

}  // namespace

std::optional<options> parse_options(int argc, char** argv, int* exit_code) {
    CLI::App app("Security service with a forwarding table in memory");
    app.set_version_flag("--version", "scc-ss-dev " SCC_VERSION_TEXT);
    options parsed;
    u32 delay_ms = 0;
    u32 run_after = 1;
    std::string run_on = "signal";
    std::vector<std::string> refusals;
    std::vector<u32> silent;
    std::vector<std::string> vlans;

    constexpr u32 number_max = 0xFFFFFFFF;
    constexpr u32 type_max = 0xFFFF;
    constexpr u32 delay_ms_max = 3'600'000;
    app.add_option("--delay", delay_ms, "Delay every answer by this many milliseconds")
        ->transform(devkit::number_within(0, delay_ms_max))
        ->type_name("N");
    CLI::Option* const refuse =
        app.add_option("--refuse", refusals, "Answer operations of this message type with this result")
            ->type_name("TYPE:RESULT");
    app.add_option("--silent", silent, "Never answer operations of this message type")
        ->type_name("TYPE")
        ->transform(devkit::number_within(1, type_max));
    CLI::Option* const capture =
        app.add_option("--pcap", parsed.capture_path, "Capture whose packets are classified")
            ->check(CLI::ExistingFile)
            ->check(CLI::Validator(capture_problem, {}));
    app.add_option("--pcap-on", run_on, "signal: run the capture on SIGUSR1 alone; applied: also by itself")
        ->check(CLI::IsMember({"signal", "applied"}, CLI::ignore_case))
        ->needs(capture);
    app.add_option("--pcap-after", run_after, "With --pcap-on applied: once this many ACLs are applied")
        ->transform(devkit::number_within(1, number_max))
        ->type_name("N")
        ->capture_default_str()
        ->needs(capture);
    app.add_option("--pcap-ifx", parsed.ingress.default_ifx, "Interface by which the packets entered")
        ->transform(devkit::number_within(0, number_max))
        ->type_name("N")
        ->capture_default_str();
    CLI::Option* const of_vlan =
        app.add_option("--vlan-ifx", vlans, "Interface of the packets of a VLAN (0: untagged)")
            ->type_name("VLAN:IFX");
    app.add_flag("-v,--verbose", parsed.verbose, "Print each operation");

    try {
        app.parse(argc, argv);
        for (const std::string& text : refusals) {
            parsed.policy.refusals.insert(number_pair(*refuse, text, type_max, number_max));
        }
        for (const std::string& text : vlans) {
            const auto [vid, ifx] = number_pair(*of_vlan, text, ace::vlan_max, number_max);
            parsed.ingress.ifx_of_vlan[static_cast<u16>(vid)] = ifx;
        }
    } catch (const CLI::ParseError& error) {
        *exit_code = app.exit(error) == 0 ? 0 : exit_usage;
        return std::nullopt;
    }
    parsed.policy.delay = std::chrono::milliseconds(delay_ms);
    parsed.policy.silent = {silent.begin(), silent.end()};
    if (CLI::detail::to_lower(run_on) == "applied") {
        parsed.run_after = run_after;
    }
    return parsed;
}

}  // namespace scc::service
