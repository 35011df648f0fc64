#include "rounds.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace bench {

figure in_child(const std::function<figure()>& measure) {
    int ends[2];
    if (pipe(ends) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const figure value = measure();
        const bool written = write(ends[1], &value, sizeof value) == sizeof value;
        _exit(written ? 0 : 1);
    }
    close(ends[1]);
    figure value;
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

namespace {

double median(const std::vector<figure>& values, double figure::*member) {
    std::vector<double> column;
    for (const figure& one : values) {
        column.push_back(one.*member);
    }
    std::ranges::nth_element(column, column.begin() + static_cast<std::ptrdiff_t>(column.size() / 2));
    return column[column.size() / 2];
}

}  // namespace

std::vector<figure> figures(const std::vector<contender>& contenders, int rounds) {
    std::vector<std::vector<figure>> values(contenders.size());
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            values[i].push_back(in_child(contenders[i].measure));
        }
    }
    std::vector<figure> result;
    for (const auto& of_one : values) {
        result.emplace_back(median(of_one, &figure::value), median(of_one, &figure::processor_ns));
    }
    return result;
}

std::vector<double> medians(const std::vector<contender>& contenders, int rounds) {
    std::vector<double> result;
    for (const figure& one : figures(contenders, rounds)) {
        result.push_back(one.value);
    }
    return result;
}

double processor_s() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
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
