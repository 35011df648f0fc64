// interleavings [--quick] [--preemptions N|all] [--old-values N] [--most N] [PROGRAM...]
//     explores the programs whose names contain one of the texts, or all, and prints a table.
// interleavings --repeat SCHEDULE [--quick] [bounds...] PROGRAM
//     repeats one execution and prints its operations.
// interleavings --list
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "program.h"

extern "C" const char __executable_start;  // the linker's

using namespace interleavings;

namespace {

struct options {
    bool quick = false;
    bool list = false;
    bool all = false;
    int preemptions = 0;
    int old_values = 0;
    std::uint64_t most = 0;
    std::string schedule;
    std::vector<std::string> names;
};

constexpr const char* usage =
    "usage: interleavings [--quick] [--preemptions N|all] [--old-values N] [--most EXECUTIONS] [PROGRAM...]\n"
    "       interleavings --repeat SCHEDULE [--quick] [--preemptions N|all] [--old-values N] PROGRAM\n"
    "       interleavings --list\n";

bool parse(int count, char** arguments, options& out) {
    for (int i = 1; i < count; ++i) {
        const std::string name = arguments[i];
        const auto value = [&] { return i + 1 < count ? std::string(arguments[++i]) : std::string(); };
        if (name == "--quick") {
            out.quick = true;
        } else if (name == "--list") {
            out.list = true;
        } else if (name == "--preemptions") {
            const std::string most = value();
            out.all = most == "all";
            out.preemptions = std::atoi(most.c_str());
        } else if (name == "--old-values") {
            out.old_values = std::atoi(value().c_str());
        } else if (name == "--most") {
            out.most = std::strtoull(value().c_str(), nullptr, 10);
        } else if (name == "--repeat") {
            out.schedule = value();
        } else if (name.starts_with("--")) {
            return false;
        } else {
            out.names.push_back(name);
        }
    }
    return out.schedule.empty() || out.names.size() == 1;
}

std::vector<const program*> chosen(const options& given) {
    std::vector<const program*> result;
    for (const auto group : {ring_programs(), call_programs(), descriptor_programs(), lifetime_programs()}) {
        for (const program& each : group) {
            bool wanted = given.names.empty();
            for (const std::string& name : given.names) {
                wanted = wanted || each.name.find(name) != std::string_view::npos;
            }
            if (wanted) {
                result.push_back(&each);
            }
        }
    }
    return result;
}

bounds bounds_of(const program& what, const options& given) {
    bounds limit = given.quick ? what.quick : what.deep;
    if (given.all) {
        limit.preemptions = unlimited;
    } else if (given.preemptions != 0) {
        limit.preemptions = given.preemptions;
    }
    if (given.old_values != 0) {
        limit.old_values = given.old_values;
    }
    return limit;
}

std::string text_of(const bounds& limit) {
    return limit.preemptions == unlimited ? "all orders"
                                          : std::to_string(limit.preemptions) + " preemptions, " +
                                                std::to_string(limit.old_values) + " old values";
}

// Function and line of an address of this program: of inlined calls, the innermost outside the C++ library.
std::string place_of(const void* code) {
    if (code == nullptr) {
        return {};
    }
    const auto offset =
        reinterpret_cast<std::uintptr_t>(code) - reinterpret_cast<std::uintptr_t>(&__executable_start);
    std::array<char, 100> command{};
    std::snprintf(command.data(), command.size(), "addr2line -Cfpise /proc/%d/exe %#zx",
                  static_cast<int>(getpid()), offset - 1);
    std::string place;
    if (FILE* lines = popen(command.data(), "r"); lines != nullptr) {
        std::array<char, 400> line{};
        while (std::fgets(line.data(), line.size(), lines) != nullptr) {
            if (place.empty() && std::strstr(line.data(), " atomic") == nullptr) {
                place = line.data();
            }
        }
        pclose(lines);
    }
    constexpr std::string_view inlined = " (inlined by) ";
    place.erase(0, place.starts_with(inlined) ? inlined.size() : 0);
    place.erase(place.find_last_not_of('\n') + 1);
    return place;
}

void print_trace(const outcome& result) {
    for (const trace_entry& each : result.trace) {
        const std::string text = "thread " + std::to_string(each.thread) + " " + each.text;
        std::printf("  %-58s %s\n", text.c_str(), place_of(each.code).c_str());
    }
}

int repeat_one(const options& given) {
    const std::vector<const program*> found = chosen(given);
    if (found.size() != 1) {
        std::fprintf(stderr, "%zu programs have this name.\n", found.size());
        return 2;
    }
    const outcome result = repeat(*found.front(), bounds_of(*found.front(), given), given.schedule);
    print_trace(result);
    std::printf("%s\n", result.violation.empty() ? "No violation." : result.violation.c_str());
    return result.violation.empty() ? 0 : 1;
}

void print_violation(const program& what, const bounds& limit, const outcome& result) {
    std::printf("VIOLATION: %s\n", result.violation.c_str());
    print_trace(repeat(what, limit, result.schedule));
    const std::string most = limit.preemptions == unlimited ? "all" : std::to_string(limit.preemptions);
    std::printf("Repeat it with: interleavings --repeat %s --preemptions %s --old-values %d '%s'\n",
                result.schedule.c_str(), most.c_str(), limit.old_values, std::string(what.name).c_str());
}

}  // namespace

int main(int count, char** arguments) {
    options given;
    if (!parse(count, arguments, given)) {
        std::fputs(usage, stderr);
        return 2;
    }
    if (!given.schedule.empty()) {
        return repeat_one(given);
    }
    const std::vector<const program*> programs = chosen(given);
    if (programs.empty()) {
        std::fputs("No program has such a name.\n", stderr);
        return 2;
    }
    std::uint64_t executions = 0;
    int violations = 0;
    if (!given.list) {
        std::printf("%-60s %7s  %-28s %11s %10s %10s %7s\n", "program", "threads", "bound", "executions",
                    "redundant", "violations", "s");
    }
    for (const program* each : programs) {
        if (given.list) {
            std::printf("%s\n", std::string(each->name).c_str());
            continue;
        }
        const bounds limit = bounds_of(*each, given);
        const auto begin = std::chrono::steady_clock::now();
        const outcome result = explore(*each, limit, given.most);
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        const bool violated = !result.violation.empty();
        const bool partial = !violated && (!result.complete || result.cut != 0);
        std::printf("%-60s %7u  %-28s %11llu %10llu %10d %7.1f%s\n", std::string(each->name).c_str(),
                    each->threads, text_of(limit).c_str(), static_cast<unsigned long long>(result.executions),
                    static_cast<unsigned long long>(result.redundant), violated ? 1 : 0, time.count(),
                    partial ? "  not all" : "");
        if (violated) {
            print_violation(*each, limit, result);
        }
        std::fflush(stdout);
        executions += result.executions;
        violations += violated ? 1 : 0;
    }
    if (!given.list) {
        std::printf("%llu executions of %zu programs, %d violations\n",
                    static_cast<unsigned long long>(executions), programs.size(), violations);
    }
    return violations == 0 ? 0 : 1;
}
