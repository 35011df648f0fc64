// Linked with a mutated copy of the library. In the environment:
//   SCC_MUTANT=id               takes that alternative, with bounds on what a mutant may use up
//   SCC_MUTANT_REACHED=file     maps the file, whose bytes are the identifiers
//   SCC_MUTANT_FOLDERS=file     appends the temporary folders that the process makes, for whoever kills it
//   SCC_MUTANT_SERVER=from,to   runs one test case in a process of its own for each line that is read from a
//   descriptor,
//                               so that starting the program is paid for once
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mutate.h"

namespace mutate {

constinit int active = -1;
constinit unsigned char* reached = nullptr;

namespace {

void bound(int what, rlim_t most) {
    const rlimit limits{most, most};
    setrlimit(static_cast<__rlimit_resource>(what), &limits);
}

[[gnu::constructor(101)]] void read_environment() {
    bound(RLIMIT_CORE, 0);
    if (const char* number = std::getenv("SCC_MUTANT")) {
        active = std::atoi(number);
        bound(RLIMIT_AS, rlim_t{4} << 30);
        bound(RLIMIT_FSIZE, rlim_t{64} << 20);
    }
    if (const char* name = std::getenv("SCC_MUTANT_REACHED")) {
        const int file = open(name, O_RDWR | O_CLOEXEC);
        struct stat about {};
        if (file < 0 || fstat(file, &about) != 0) {
            _exit(120);
        }
        void* bytes = mmap(nullptr, static_cast<std::size_t>(about.st_size), PROT_READ | PROT_WRITE,
                           MAP_SHARED, file, 0);
        close(file);
        if (bytes == MAP_FAILED) {
            _exit(120);
        }
        reached = static_cast<unsigned char*>(bytes);
    }
}

}  // namespace
}  // namespace mutate

extern "C" {

[[gnu::weak]] int __real_main(int count, char** arguments);

// A request is "mutant reached filter", with - for none; the answers are the child's identifier and its wait
// status.
int __wrap_main(int count, char** arguments) {
    int from = -1;
    int to = -1;
    const char* server = std::getenv("SCC_MUTANT_SERVER");
    if (server == nullptr || std::sscanf(server, "%d,%d", &from, &to) != 2) {
        return __real_main(count, arguments);
    }
    unsetenv("SCC_MUTANT_SERVER");
    FILE* requests = fdopen(from, "r");
    static char mutant[32];
    static char reached[512];
    static char filter[1024] = "--gtest_filter=";
    const std::size_t prefix = std::strlen(filter);
    while (std::fscanf(requests, "%31s %511s %1000s", mutant, reached, filter + prefix) == 3) {
        const pid_t child = fork();
        if (child == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(from);
            close(to);
            if (*mutant != '-') {
                setenv("SCC_MUTANT", mutant, 1);
            }
            if (*reached != '-') {
                setenv("SCC_MUTANT_REACHED", reached, 1);
            }
            mutate::read_environment();
            unsetenv("SCC_MUTANT_REACHED");
            char* own[] = {arguments[0], filter, nullptr};
            std::exit(__real_main(2, own));
        }
        setpgid(child, child);
        dprintf(to, "%d\n", child);
        pollfd waits[] = {{static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0}, {from, 0, 0}};
        while (poll(waits, 2, -1) < 0 && errno == EINTR) {
        }
        if ((waits[1].revents & POLLHUP) != 0) {
            kill(-child, SIGKILL);  // whoever asked is gone
        }
        close(waits[0].fd);
        int status = 0;
        waitpid(child, &status, 0);
        kill(-child, SIGKILL);
        dprintf(to, "%d\n", status);
    }
    return 0;
}

char* mkdtemp(char* name) {
    using function = char* (*)(char*);
    static const auto system_mkdtemp = reinterpret_cast<function>(dlsym(RTLD_NEXT, "mkdtemp"));
    char* made = system_mkdtemp(name);
    const char* list = std::getenv("SCC_MUTANT_FOLDERS");
    if (made != nullptr && list != nullptr) {
        const int file = open(list, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (file >= 0) {
            (void)!write(file, made, std::strlen(made));
            (void)!write(file, "\n", 1);
            close(file);
        }
    }
    return made;
}
}
