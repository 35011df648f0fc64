// Interleaved rounds and their medians. A measurement runs in a process of its own, since the library's
// state is the process's, and hands one number back.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Runs the function in a child process; its number, or a failure that ends the program.
double in_child(const std::function<double()>& measure);

struct contender {
    std::string name;
    std::function<double()> measure;
};

// The median of each contender over the rounds, which take turns.
std::vector<double> medians(const std::vector<contender>& contenders, int rounds);

double now_s();
// Prints "name: value unit, ratio (target ...)".
void print_ratio(const std::string& what, double value, double reference, const char* unit,
                 const std::string& target);

}  // namespace bench
