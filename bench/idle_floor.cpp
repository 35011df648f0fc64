// The floor of an idle client: a thread that waits for 5 ms at a time, for the seconds given as the argument.
// Prints its processor time in percent of one core.
#include <sys/select.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

int main(int argc, char** argv) {
    const int passes = 200 * (argc > 1 ? std::atoi(argv[1]) : 20);
    for (int i = 0; i < passes; ++i) {
        timeval wait{0, 5000};
        select(0, nullptr, nullptr, nullptr, &wait);
    }
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    const double seconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    std::printf("%.2f\n", seconds * 100 / (passes * 0.005));
    return 0;
}
