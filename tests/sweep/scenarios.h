// What the sweep lets the library live through. A scenario acts while a fault may strike, then proves that
// the library works, then that nothing is left of it.
#pragma once

#include <span>
#include <string>

namespace sweep {

struct scenario {
    const char* name;
    void (*prepare)();  // before descriptors and threads are counted
    void (*act)();
    void (*prove)();
    void (*finish)();       // after the daemon has gone; null for none
    unsigned threads_left;  // the library's, which live as long as the process
    bool restarting;        // the daemon goes away and comes back in the middle
};

[[nodiscard]] std::span<const scenario> scenarios();

// Runs the whole scenario in this process, which is then done for, and prints what it found. blocks_left is
// how many blocks a run without a fault keeps; negative for unknown. Returns the exit status.
int run_scenario(const scenario& one, const std::string& directory, int blocks_left);

}  // namespace sweep
