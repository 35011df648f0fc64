// Makes every allocation and every system call of the library fail in turn.
//
//   fault_sweep [--sample N] [--seed S] [--jobs J] [--only SCENARIO] [--all]   the sweep
//   fault_sweep --run SCENARIO [--fault FAULT] [--blocks N]            one run, as printed with a failure
//
// A first run of each scenario records the call sites and how often each is called; then each fault gets a
// run of its own, several at a time. FAULT is CALL@SITE:NTH:EFFECT, with :onwards if each later call fails
// too; EFFECT is an error's name, end, short, or torn-ERROR. A site is an offset in this executable.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sweep/fault_plan.h"
#include "sweep/life.h"
#include "sweep/scenarios.h"
#include "sweep/shim.h"

namespace sweep {
namespace {

struct options {
    std::size_t sample = 0;  // 0 for all
    unsigned seed = 1;
    unsigned jobs = 4;
    bool all = false;  // including those of open.txt
    std::string only;
    std::string run;
    std::string fault_text;
    int blocks = -1;
    bool listing = false;
    std::string directory;
};

// ---- runs ------------------------------------------------------------------------------------------

struct planned {
    const scenario* where;
    fault what;
};

struct outcome {
    bool met = false;
    std::vector<std::string> failures;
    std::vector<std::string> left;
};

struct running {
    pid_t pid = -1;
    int output = -1;
    std::size_t index = 0;
    std::string text;
    std::string directory;
    std::chrono::steady_clock::time_point until;
};

std::string own_path() {
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::string command_of(const std::string& name, const std::string& fault_text, int blocks) {
    std::string out = own_path() + " --run " + name;
    if (!fault_text.empty()) {
        out += " --fault " + fault_text;
    }
    return blocks >= 0 ? out + " --blocks " + std::to_string(blocks) : out;
}

running launch(const std::vector<std::string>& arguments, const std::string& directory, std::size_t index) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        std::perror("pipe2");
        std::exit(2);
    }
    std::filesystem::create_directories(directory);
    std::vector<char*> words;
    for (const std::string& one : arguments) {
        words.push_back(const_cast<char*>(one.c_str()));
    }
    words.push_back(nullptr);
    const std::string program = own_path();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(program.c_str(), words.data());
        _exit(127);
    }
    close(ends[1]);
    return {pid, ends[0],   index,
            {},  directory, std::chrono::steady_clock::now() + std::chrono::seconds(run_bound_seconds + 30)};
}

outcome read_outcome(const running& one, int status) {
    outcome out;
    std::string rest;
    for (std::size_t at = 0; at < one.text.size();) {
        const std::size_t end = std::min(one.text.find('\n', at), one.text.size());
        const std::string line = one.text.substr(at, end - at);
        at = end + 1;
        if (line.starts_with("met ")) {
            out.met = line == "met 1";
        } else if (line.starts_with("failure ")) {
            out.failures.push_back(line.substr(8));
        } else if (line.starts_with("left ")) {
            out.left.push_back(line.substr(5));
        } else if (!line.starts_with("call ") && !line.starts_with("blocks ")) {
            rest += line + "\n";
        }
    }
    if (WIFSIGNALED(status)) {
        out.met = true;
        out.failures.push_back(std::string("crashes: ") + strsignal(WTERMSIG(status)));
    } else if (WEXITSTATUS(status) != 0 && out.failures.empty()) {
        out.met = true;
        out.failures.push_back("ends with status " + std::to_string(WEXITSTATUS(status)) + "\n" + rest);
    }
    return out;
}

// Runs what next() returns, several at a time, and passes each finished run to done.
template <class Next, class Done>
void run_all(unsigned jobs, Next next, Done done) {
    std::vector<running> now;
    bool more = true;
    while (more || !now.empty()) {
        while (more && now.size() < jobs) {
            if (std::optional<running> started = next()) {
                now.push_back(std::move(*started));
            } else {
                more = false;
            }
        }
        std::vector<pollfd> watched;
        for (const running& one : now) {
            watched.push_back({one.output, POLLIN, 0});
        }
        poll(watched.data(), watched.size(), 1000);
        for (std::size_t i = now.size(); i-- > 0;) {
            running& one = now[i];
            if (std::chrono::steady_clock::now() > one.until) {
                kill(one.pid, SIGKILL);
            }
            if (watched[i].revents == 0) {
                continue;
            }
            char room[4096];
            const ssize_t got = read(one.output, room, sizeof room);
            if (got > 0) {
                one.text.append(room, static_cast<std::size_t>(got));
                continue;
            }
            int status = 0;
            waitpid(one.pid, &status, 0);
            close(one.output);
            std::error_code ignored;
            std::filesystem::remove_all(one.directory, ignored);
            done(one, status);
            now.erase(now.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

// ---- the sweep -------------------------------------------------------------------------------------

struct first_run {
    std::vector<site_calls> sites;
    int blocks = -1;
};

struct cell {
    std::set<std::uintptr_t> sites;
    unsigned planned = 0;
    unsigned injections = 0;
    unsigned failures = 0;
    unsigned skipped = 0;
};

// "function (file:line)" of each site.
std::map<std::uintptr_t, std::string> name_sites(const std::set<std::uintptr_t>& sites) {
    std::map<std::uintptr_t, std::string> out;
    std::string command = "addr2line -s -f -C -e " + own_path();
    for (const std::uintptr_t site : sites) {
        char number[32];
        std::snprintf(number, sizeof number, " %zx", site - 1);
        command += number;
    }
    FILE* answer = sites.empty() ? nullptr : popen(command.c_str(), "r");
    if (answer == nullptr) {
        return out;
    }
    char function[1024];
    char place[1024];
    for (const std::uintptr_t site : sites) {
        if (std::fgets(function, sizeof function, answer) == nullptr ||
            std::fgets(place, sizeof place, answer) == nullptr) {
            break;
        }
        std::string name = function;
        if (const std::size_t nameless = name.find("(anonymous namespace)::");
            nameless != std::string::npos) {
            name.erase(nameless, std::strlen("(anonymous namespace)::"));
        }
        name.resize(std::min(name.find_first_of("(\n"), name.size()));
        place[std::strcspn(place, " \n")] = '\0';
        out[site] = name + " " + place;
    }
    pclose(answer);
    return out;
}

std::map<std::string, first_run> list_calls(const options& wanted, const std::vector<const scenario*>& which,
                                            const std::string& root, bool& healthy) {
    std::map<std::string, first_run> out;
    std::size_t index = 0;
    run_all(
        wanted.jobs,
        [&]() -> std::optional<running> {
            if (index == which.size()) {
                return std::nullopt;
            }
            const std::string directory = root + "/first" + std::to_string(index);
            const scenario& one = *which[index];
            return launch({"fault_sweep", "--run", one.name, "--list", "--directory", directory}, directory,
                          index++);
        },
        [&](const running& one, int status) {
            first_run& found = out[which[one.index]->name];
            const outcome seen = read_outcome(one, status);
            for (const std::string& failure : seen.failures) {
                healthy = false;
                std::printf("%s without a fault: %s\n  again: %s\n", which[one.index]->name, failure.c_str(),
                            command_of(which[one.index]->name, "", -1).c_str());
            }
            for (std::size_t at = 0; at < one.text.size();) {
                const std::size_t end = std::min(one.text.find('\n', at), one.text.size());
                const std::string line = one.text.substr(at, end - at);
                at = end + 1;
                char call[64];
                std::size_t site = 0;
                unsigned calls = 0;
                if (std::sscanf(line.c_str(), "call %63s %zx %u", call, &site, &calls) == 3) {
                    found.sites.push_back({call, site, calls});
                }
                std::sscanf(line.c_str(), "blocks %d", &found.blocks);
            }
        });
    return out;
}

// Takes one fault of each site and effect in turn, so that a sample is spread over all of them.
std::vector<planned> choose(std::map<std::pair<std::string, std::uintptr_t>, std::vector<planned>> by_kind,
                            const options& wanted) {
    std::mt19937 random(wanted.seed);
    std::vector<std::vector<planned>*> groups;
    for (auto& [kind, faults] : by_kind) {
        std::shuffle(faults.begin(), faults.end(), random);
        groups.push_back(&faults);
    }
    std::shuffle(groups.begin(), groups.end(), random);
    std::vector<planned> out;
    for (std::size_t turn = 0; !groups.empty(); ++turn) {
        std::erase_if(groups, [turn](const auto* faults) { return turn >= faults->size(); });
        for (const auto* faults : groups) {
            if (wanted.sample != 0 && out.size() == wanted.sample) {
                return out;
            }
            out.push_back((*faults)[turn]);
        }
    }
    return out;
}

// open.txt lists the faults that the library is known not to survive; they are skipped unless --all is given.
// A line has call, effect and function, and the reason after a dash.
struct open_fault {
    std::string call;
    std::string what;
    std::string function;
};

std::vector<open_fault> read_open_faults() {
    std::vector<open_fault> out;
    std::ifstream file(SWEEP_OPEN_FILE);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        open_fault one;
        if (line[0] != '#' && words >> one.call >> one.what >> one.function) {
            out.push_back(one);
        }
    }
    return out;
}

bool is_open(const std::vector<open_fault>& known, const fault& one, const std::string& place) {
    return std::any_of(known.begin(), known.end(), [&](const open_fault& entry) {
        return entry.call == one.call && entry.what == effect_text(one) &&
               place.find(entry.function) != std::string::npos;
    });
}

void print_table(const std::map<std::pair<std::string, std::string>, cell>& table) {
    std::printf("\n%-20s %-33s %6s %10s %8s\n", "scenario", "call", "sites", "injections", "failures");
    cell total;
    for (const auto& [where, counted] : table) {
        std::printf("%-20s %-33s %6zu %10u %8u\n", where.first.c_str(), where.second.c_str(),
                    counted.sites.size(), counted.injections, counted.failures);
        total.planned += counted.planned;
        total.injections += counted.injections;
        total.failures += counted.failures;
        total.skipped += counted.skipped;
        total.sites.insert(counted.sites.begin(), counted.sites.end());
    }
    std::printf("%-20s %-33s %6zu %10u %8u\n", "all", "", total.sites.size(), total.injections,
                total.failures);
    std::printf("%u planned, %u not reached in their run, %u not run after repeated failures of a site\n",
                total.planned, total.planned - total.injections - total.skipped, total.skipped);
}

int sweep_all(const options& wanted) {
    std::vector<const scenario*> which;
    for (const scenario& one : scenarios()) {
        if (wanted.only.empty() || wanted.only == one.name) {
            which.push_back(&one);
        }
    }
    if (which.empty()) {
        std::fprintf(stderr, "no scenario is called %s\n", wanted.only.c_str());
        return 2;
    }
    char name[] = "/tmp/sweep-XXXXXX";
    const std::string root = mkdtemp(name);
    const auto begun = std::chrono::steady_clock::now();
    bool healthy = true;
    const std::map<std::string, first_run> first = list_calls(wanted, which, root, healthy);

    std::map<std::pair<std::string, std::string>, cell> table;
    std::map<std::pair<std::string, std::uintptr_t>, std::vector<planned>> by_kind;
    std::set<std::uintptr_t> sites;
    for (const auto& [scenario_name, found] : first) {
        for (const site_calls& site : found.sites) {
            sites.insert(site.site);
        }
    }
    std::map<std::uintptr_t, std::string> names = name_sites(sites);
    const std::vector<open_fault> known = wanted.all ? std::vector<open_fault>{} : read_open_faults();
    unsigned left_out = 0;
    for (const scenario* where : which) {
        for (const site_calls& site : first.at(where->name).sites) {
            std::vector<fault> faults;
            add_faults(site, faults);
            for (const fault& one : faults) {
                if (is_open(known, one, names[site.site])) {
                    ++left_out;
                } else {
                    by_kind[{effect_text(one) + (one.onwards ? ":onwards" : ""), site.site}].push_back(
                        {where, one});
                }
            }
            table[{where->name, site.call}].sites.insert(site.site);
        }
    }
    const std::vector<planned> plan = choose(std::move(by_kind), wanted);
    for (const planned& one : plan) {
        ++table[{one.where->name, one.what.call}].planned;
    }
    std::printf("%zu call sites, %zu faults planned, seed %u; waits are %d times shorter\n", sites.size(),
                plan.size(), wanted.seed, time_factor);
    if (left_out != 0) {
        std::printf("%u faults are left out, see %s\n", left_out, SWEEP_OPEN_FILE);
    }
    std::fflush(stdout);

    constexpr unsigned failures_enough = 4;
    std::map<std::pair<std::string, std::uintptr_t>, unsigned> failures_at;
    std::size_t index = 0;
    run_all(
        wanted.jobs,
        [&]() -> std::optional<running> {
            while (index < plan.size()) {
                const std::size_t own = index++;
                const planned& one = plan[own];
                if (failures_at[{one.where->name, one.what.site}] >= failures_enough) {
                    ++table[{one.where->name, one.what.call}].skipped;
                    continue;
                }
                const std::string directory = root + "/" + std::to_string(own);
                return launch(
                    {"fault_sweep", "--run", one.where->name, "--fault", text_of(one.what), "--blocks",
                     std::to_string(first.at(one.where->name).blocks), "--directory", directory},
                    directory, own);
            }
            return std::nullopt;
        },
        [&](const running& one, int status) {
            const planned& ran = plan[one.index];
            const outcome seen = read_outcome(one, status);
            cell& counted = table[{ran.where->name, ran.what.call}];
            counted.injections += seen.met ? 1 : 0;
            if (seen.failures.empty()) {
                return;
            }
            ++counted.failures;
            ++failures_at[{ran.where->name, ran.what.site}];
            const auto place = names.find(ran.what.site);
            std::printf("%s: %s in %s\n", ran.where->name, text_of(ran.what).c_str(),
                        place == names.end() ? "?" : place->second.c_str());
            for (const std::string& failure : seen.failures) {
                std::printf("  %s\n", failure.c_str());
            }
            for (const std::string& left : seen.left) {
                std::printf("  left by %s\n", left.c_str());
            }
            std::printf(
                "  again: %s\n",
                command_of(ran.where->name, text_of(ran.what), first.at(ran.where->name).blocks).c_str());
            std::fflush(stdout);
        });
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    print_table(table);
    unsigned failures = healthy ? 0 : 1;
    for (const auto& [where, counted] : table) {
        failures += counted.failures;
    }
    std::printf("%.0f s\n", std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    return failures == 0 ? 0 : 1;
}

// ---- one run ---------------------------------------------------------------------------------------

// The number of blocks that stay: the library frees idle blocks a little later.
unsigned settled_blocks() {
    unsigned least = block_count();
    for (int i = 0; i < 100; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        least = std::min(least, block_count());
    }
    return least;
}

int run_one(const options& wanted) {
    for (const scenario& one : scenarios()) {
        if (wanted.run != one.name) {
            continue;
        }
        if (!wanted.fault_text.empty()) {
            const std::optional<fault> what = fault_of(wanted.fault_text);
            if (!what) {
                std::fprintf(stderr, "no fault: %s\n", wanted.fault_text.c_str());
                return 2;
            }
            arm(*what);
        }
        std::string directory = wanted.directory;
        char name[] = "/tmp/sweep-XXXXXX";
        if (directory.empty()) {
            directory = mkdtemp(name);
        }
        const int status = run_scenario(one, directory, wanted.blocks);
        if (wanted.listing) {
            for (const site_calls& site : counted_calls()) {
                std::printf("call %s %zx %u\n", site.call.c_str(), site.site, site.calls);
            }
            std::printf("blocks %u\n", settled_blocks());
        }
        std::printf("met %d\n", is_met() ? 1 : 0);
        std::fflush(stdout);
        if (wanted.directory.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(directory, ignored);
        }
        // Threads of the library still run: nothing may be destroyed under them.
        _exit(status);
    }
    std::fprintf(stderr, "no scenario is called %s\n", wanted.run.c_str());
    return 2;
}

bool read_options(int argc, char** argv, options& out) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--list") {
            out.listing = true;
            continue;
        }
        if (word == "--all") {
            out.all = true;
            continue;
        }
        if (i + 1 == argc) {
            return false;
        }
        const std::string value = argv[++i];
        if (word == "--sample") {
            out.sample = std::strtoul(value.c_str(), nullptr, 10);
        } else if (word == "--seed") {
            out.seed = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
        } else if (word == "--jobs") {
            out.jobs = std::max(1U, static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10)));
        } else if (word == "--only") {
            out.only = value;
        } else if (word == "--run") {
            out.run = value;
        } else if (word == "--fault") {
            out.fault_text = value;
        } else if (word == "--blocks") {
            out.blocks = std::atoi(value.c_str());
        } else if (word == "--directory") {
            out.directory = value;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace
}  // namespace sweep

int main(int argc, char** argv) {
    sweep::options wanted;
    if (!sweep::read_options(argc, argv, wanted)) {
        std::fprintf(stderr,
                     "usage: fault_sweep [--sample N] [--seed S] [--jobs J] [--only SCENARIO] [--all]\n"
                     "       fault_sweep --run SCENARIO [--fault FAULT] [--blocks N] [--list]\n");
        return 2;
    }
    return wanted.run.empty() ? sweep::sweep_all(wanted) : sweep::run_one(wanted);
}
