// sccctl: every request, query and read-back of the library as a command.
//
// "--complete WORD..." prints what fits the last word, for the completion scripts: a line for each candidate,
// with a tab and its help, and the line "@files" if file names fit.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "common/standard_output.h"
#include "program.h"

int main(int argc, char** argv) try {
    const std::vector<std::string> words{argv + 1, argv + argc};
    scc::ctl::context within;
    int status = 0;
    if (!words.empty() && words[0] == "--complete") {
        scc::ctl::print_completion({words.begin() + 1, words.end()});
    } else {
        status = scc::ctl::run_command_line(words, within);
    }
    const bool written = scc::devkit::end_output("sccctl");
    return written || status != 0 ? status : scc::ctl::exit_refused;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "sccctl: %s\n", problem.what());
    return scc::ctl::exit_refused;
}
