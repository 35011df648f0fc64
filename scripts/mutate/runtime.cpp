// Linked with a mutated copy of the library. Runs before main:
//   SCC_MUTANT=id           takes that alternative, with bounds on what a mutant may use up
//   SCC_MUTANT_REACHED=file maps the file, whose bytes are the identifiers
//   SCC_MUTANT_FOLDERS=file appends the temporary folders that the process makes, for whoever kills it
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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
        void* bytes = mmap(nullptr, static_cast<std::size_t>(about.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (bytes == MAP_FAILED) {
            _exit(120);
        }
        reached = static_cast<unsigned char*>(bytes);
    }
}

}  // namespace
}  // namespace mutate

extern "C" char* mkdtemp(char* name) {
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
