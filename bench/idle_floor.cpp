// The floor of an idle client: a thread that does nothing but wait 5 ms at a time, as long as the argument
// says in seconds. Prints its processor time as a share of one core, in percent.
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
