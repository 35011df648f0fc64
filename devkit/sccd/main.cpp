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

#include "common/number_option.h"
#include "common/standard_output.h"
#include "sccd/daemon.h"

namespace {

constexpr int exit_usage = 2;

class owned_directory {
  public:
    explicit owned_directory(int descriptor) : descriptor_(descriptor) {}
    ~owned_directory() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    owned_directory(const owned_directory&) = delete;
    owned_directory& operator=(const owned_directory&) = delete;
    [[nodiscard]] int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

// Follows no link below `base`, which may be writable for everybody.
bool open_to_everybody(const char* base) {
    constexpr int plain = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    const owned_directory outer(::open(base, plain));
    const owned_directory middle(::openat(outer.descriptor(), "security", plain | O_NOFOLLOW));
    const owned_directory inner(::openat(middle.descriptor(), "scc", plain | O_NOFOLLOW));
    return ::fchmod(inner.descriptor(), 0777) == 0;
}

// Processes of all users create sockets in this directory.
std::string make_directory() {
    const char* const base = std::getenv("TMPDIR");
    if (base == nullptr || *base == '\0') {
        throw std::runtime_error("TMPDIR is not set");
    }
    std::string directory = std::string(base) + "/security/scc";
    std::filesystem::create_directories(directory);
    if (!open_to_everybody(base) && ::access(directory.c_str(), W_OK) != 0) {
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
    scc::devkit::print_output("sccd-dev: ready\n");
    daemon.run();
    return scc::devkit::end_output("sccd-dev") ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    scc::sccd::daemon_options options;
    unsigned timeout_ms = static_cast<unsigned>(options.service_timeout.count());
    CLI::App app{"Development daemon: stands in for sccd on a workstation. Needs TMPDIR."};
    app.set_version_flag("--version", "sccd-dev " SCC_VERSION_TEXT);
    std::string trace;
    app.add_flag("--trace{brief}", trace,
                 "Print every message in both directions; --trace=full with every field and byte")
        ->check(CLI::IsMember({"brief", "full"}));
    app.add_option("--capture", options.capture, "Write every message to a pcapng file")->type_name("FILE");
    app.add_option("--state", options.state_file,
                   "Begin with the state in this file, if it exists, and keep it there")
        ->type_name("FILE");
    app.add_option("--scenario", options.scenario, "Let the faults of this file happen")->type_name("FILE");
    app.add_option("--service-timeout", timeout_ms, "Milliseconds to wait for the security service")
        ->transform(scc::devkit::number_within(1, std::numeric_limits<int>::max()))
        ->type_name("N")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        if (app.exit(problem) != 0) {
            return exit_usage;
        }
        return scc::devkit::end_output("sccd-dev") ? 0 : 1;
    }
    options.trace = !trace.empty();
    options.trace_detail =
        trace == "full" ? scc::devkit::trace_detail::full : scc::devkit::trace_detail::brief;
    options.service_timeout = std::chrono::milliseconds(timeout_ms);

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
