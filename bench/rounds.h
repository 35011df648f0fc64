// Interleaved rounds and their medians. Each measurement runs in its own process, since the library's state
// is per process, and returns one number.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// Runs the function in a child process and returns its number. Exits on failure.
double in_child(const std::function<double()>& measure);

struct contender {
    std::string name;
    std::function<double()> measure;
};

// The median of each contender over the rounds, in which they take turns.
std::vector<double> medians(const std::vector<contender>& contenders, int rounds);

double now_s();
// Prints "name: value unit, ratio (target ...)" and appends it as a line of JSON to the file that $BENCH_JSON names.
void print_ratio(const std::string& what, double value, double reference, const char* unit,
                 const std::string& target);

}  // namespace bench
