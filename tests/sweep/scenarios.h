// The scenarios of the sweep. A scenario acts while a fault may strike, then checks that the library works,
// then that nothing is left of it.
#pragma once

#include <span>
#include <string>

namespace sweep {

struct scenario {
    const char* name;
    void (*prepare)();  // before descriptors and threads are counted
    void (*act)();
    void (*prove)();
    void (*finish)();       // after the daemon has gone; may be null
    unsigned threads_left;  // threads of the library that live as long as the process
    bool restarting;        // whether the daemon restarts halfway through
};

[[nodiscard]] std::span<const scenario> scenarios();

// Runs the whole scenario in this process, which must then exit, and prints the findings. blocks_left is the
// number of blocks that a run without a fault keeps; negative if unknown. Returns the exit status.
int run_scenario(const scenario& one, const std::string& directory, int blocks_left);

}  // namespace sweep
