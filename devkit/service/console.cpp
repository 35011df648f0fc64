#include "service/console.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/standard_output.h"
#include "scclib.h"

namespace scc::service {

void console::say(const std::string& line) const {
    devkit::print_output(fmt::format("{}: {}\n", program_, line));
}

int console::end() const {
    return devkit::end_output(program_.c_str()) ? EXIT_SUCCESS : EXIT_FAILURE;
}

int console::fail(const std::string& what, u32 error) const {
    fmt::print(stderr, "{}: {}: {}\n", program_, what, scc_strerror(static_cast<i32>(error)));
    return EXIT_FAILURE;
}

int open_signals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return signalfd(-1, &set, SFD_CLOEXEC);
}

int next_signal(int descriptor) {
    signalfd_siginfo signal{};
    return read(descriptor, &signal, sizeof signal) == sizeof signal ? static_cast<int>(signal.ssi_signo) : 0;
}

bool has_runtime_directory() {
    const char* const base = std::getenv("TMPDIR");
    return base != nullptr && *base != '\0';
}

}  // namespace scc::service
