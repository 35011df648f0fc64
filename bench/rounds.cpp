#include "rounds.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace bench {

double in_child(const std::function<double()>& measure) {
    int ends[2];
    if (pipe(ends) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const double value = measure();
        const bool written = write(ends[1], &value, sizeof value) == sizeof value;
        _exit(written ? 0 : 1);
    }
    close(ends[1]);
    double value = 0;
    const bool got = read(ends[0], &value, sizeof value) == sizeof value;
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!got || status != 0) {
        std::fprintf(stderr, "a measurement failed\n");
        std::exit(1);
    }
    return value;
}

std::vector<double> medians(const std::vector<contender>& contenders, int rounds) {
    std::vector<std::vector<double>> values(contenders.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            values[i].push_back(in_child(contenders[i].measure));
        }
    }
    std::vector<double> result;
    for (auto& column : values) {
        std::sort(column.begin(), column.end());
        result.push_back(column[column.size() / 2]);
    }
    return result;
}

double now_s() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void print_ratio(const std::string& what, double value, double reference, const char* unit,
                 const std::string& target) {
    std::printf("%-66s %12.0f %-8s %6.2f  %s\n", what.c_str(), value, unit, value / reference,
                target.c_str());
    std::fflush(stdout);
    const char* name = std::getenv("BENCH_JSON");
    std::FILE* file = name == nullptr ? nullptr : std::fopen(name, "a");
    if (file != nullptr) {
        std::fprintf(
            file,
            "{\"what\": \"%s\", \"value\": %.6g, \"unit\": \"%s\", \"ratio\": %.4f, \"goal\": \"%s\"}\n",
            what.c_str(), value, unit, value / reference, target.c_str());
        std::fclose(file);
    }
}

}  // namespace bench
