// sccctl: every request, query and read-back of the library as a command.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "program.h"

int main(int argc, char** argv) try {
    scc::ctl::context within;
    return scc::ctl::run_command_line({argv + 1, argv + argc}, within);
} catch (const std::exception& problem) {
    std::fprintf(stderr, "sccctl: %s\n", problem.what());
    return scc::ctl::exit_refused;
}
