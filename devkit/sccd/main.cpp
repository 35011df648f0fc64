// sccd-dev: the development daemon.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>

#include "sccd/daemon.h"

namespace {

constexpr int exit_usage = 2;

// Processes of all users create sockets in this directory.
std::string make_directory() {
    const char* const base = std::getenv("TMPDIR");
    if (base == nullptr || *base == '\0') {
        throw std::runtime_error("TMPDIR is not set");
    }
    std::string directory = std::string(base) + "/security/scc";
    std::filesystem::create_directories(directory);
    if (::chmod(directory.c_str(), 0777) != 0 && ::access(directory.c_str(), W_OK) != 0) {
        throw std::runtime_error(directory + ": not writable");
    }
    return directory;
}

void allow_many_descriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

int run(const scc::sccd::daemon_options& options) {
    scc::sccd::development_daemon daemon(options);
    std::puts("sccd-dev: ready");
    std::fflush(stdout);
    daemon.run();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    scc::sccd::daemon_options options;
    unsigned timeout_ms = static_cast<unsigned>(options.service_timeout.count());
    CLI::App app{"Development daemon: stands in for sccd on a workstation. Needs TMPDIR."};
    app.add_flag("--trace", options.trace, "Print every message in both directions");
    app.add_option("--state", options.state_file,
                   "Begin with the state in this file, if it exists, and keep it there")
        ->type_name("FILE");
    app.add_option("--scenario", options.scenario, "Let happen what goes wrong in this file")
        ->type_name("FILE");
    app.add_option("--service-timeout", timeout_ms, "Milliseconds to wait for the security service")
        ->check(CLI::Range(1, std::numeric_limits<int>::max()))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : exit_usage;
    }
    options.service_timeout = std::chrono::milliseconds(timeout_ms);

    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::signal(SIGPIPE, SIG_IGN);
    ::umask(0);
    allow_many_descriptors();
    try {
        options.directory = make_directory();
        return run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sccd-dev: %s\n", error.what());
        return 1;
    }
}
