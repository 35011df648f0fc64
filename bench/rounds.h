// Interleaved rounds and their medians. Each measurement runs in its own process, since the library's state
// is per process, and returns one number.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

// A measurement: a rate or a time, and where it matters the processor time of an operation, which the load of
// other processes changes less.
struct figure {
    figure(double measured = 0, double processor = 0)  // NOLINT(google-explicit-constructor)
        : value(measured), processor_ns(processor) {}

    double value;
    double processor_ns;
};

// Runs the function in a child process and returns its figure. Exits on failure.
figure in_child(const std::function<figure()>& measure);

struct contender {
    std::string name;
    std::function<figure()> measure;
};

// The medians of each contender over the rounds, in which they take turns.
std::vector<figure> figures(const std::vector<contender>& contenders, int rounds);
std::vector<double> medians(const std::vector<contender>& contenders, int rounds);

// Of all threads of this process, in seconds.
double processor_s();
double now_s();
// Prints "name: value unit, ratio (target ...)" and appends it as a line of JSON to the file that $BENCH_JSON
// names.
void print_ratio(const std::string& what, double value, double reference, const char* unit,
                 const std::string& target);

}  // namespace bench
