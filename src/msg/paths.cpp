// Runtime paths, the instance number, process names and the service id counter.
// Any thread may call; the environment is read each time.
#include "msg/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "msg/result_codes.h"

using namespace scc;

namespace scc {

bool make_path(path_buffer& out, const char* suffix, path_base base) {
    return scc_make_path(out.text, suffix, sizeof out.text, static_cast<int>(base)) == 1;
}

namespace {

// Resolves "./x" against the working directory; absolute paths are copied, truncated to the buffer.
u32 absolute_path(const char* path, path_buffer& out) {
    if (std::strlen(path) > 2 && path[0] == '.' && path[1] == '/') {
        if (getcwd(out.text, sizeof out.text) == nullptr) {
            return result::no_entry;
        }
        const std::size_t directory = std::strlen(out.text);
        if (std::strlen(path) >= sizeof out.text - directory) {
            return result::no_space;
        }
        const char* rest = path + 1;  // from the slash after the dot
        std::memcpy(out.text + directory, rest, std::strlen(rest) + 1);
        return result::ok;
    }
    if (path[0] != '/') {
        return result::not_directory;
    }
    std::snprintf(out.text, sizeof out.text, "%s", path);
    return result::ok;
}

u32 number_after(const char* slash) {
    return static_cast<u32>(std::strtol(slash + 1, nullptr, 10));
}

constinit std::atomic<u32> g_scc_server_id{0};

}  // namespace
}  // namespace scc

extern "C" {

int scc_make_path(char* dst, const char* suffix, int size, int base) {
    const char* variable = nullptr;
    if (base == static_cast<int>(path_base::runtime)) {
        variable = "TMPDIR";
    } else if (base == static_cast<int>(path_base::persistent)) {
        variable = "DATA_QXOS_DIR";
    }
    if (dst == nullptr || suffix == nullptr || variable == nullptr || size <= 0) {
        return 0;
    }
    const char* root = std::getenv(variable);
    if (root == nullptr) {
        return 0;
    }
    const std::size_t root_length = std::strlen(root);
    const std::size_t suffix_length = std::strlen(suffix);
    if (root_length + suffix_length >= static_cast<std::size_t>(size)) {
        return 0;
    }
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result): the suffix is copied with its NUL
    std::memcpy(dst, root, root_length);
    std::memcpy(dst + root_length, suffix, suffix_length + 1);
    return 1;
}

u32 _scc_dir_create(const char* path) {
    if (path == nullptr) {
        return result::invalid;
    }
    path_buffer work;
    if (const u32 error = absolute_path(path, work); error != result::ok) {
        return error;
    }
    // Each mkdir sees the prefix with a trailing slash: the longest path needs one more byte.
    char prefix[limits::path_bytes + 1] = "/";
    std::size_t length = 1;
    char* rest = nullptr;
    for (const char* part = strtok_r(work.text, "/", &rest); part != nullptr;
         part = strtok_r(nullptr, "/", &rest)) {
        const std::size_t part_length = std::strlen(part);
        std::memcpy(prefix + length, part, part_length);
        length += part_length;
        prefix[length++] = '/';
        prefix[length] = '\0';
        if (mkdir(prefix, 0777) != 0 && errno != EEXIST) {
            return static_cast<u32>(errno);
        }
    }
    return result::ok;
}

u32 _scc_vsd_id_get(void) {
    const char* root = std::getenv("TMPDIR");
    if (root == nullptr) {
        return 0;
    }
    // Callers promise a slash; without one the whole text is read. _scc_lib_vsd_id_get checks for it.
    const char* slash = std::strrchr(root, '/');
    return slash == nullptr ? static_cast<u32>(std::strtol(root, nullptr, 10)) : number_after(slash);
}

u32 _scc_lib_vsd_id_get(void) {
    const char* root = std::getenv("TMPDIR");
    const char* slash = root == nullptr ? nullptr : std::strrchr(root, '/');
    return slash == nullptr ? 0 : number_after(slash);
}

u32 _scc_process_name_get(int pid, char* buf, int size) {
    if (buf == nullptr || size <= 0) {
        return result::invalid;
    }
    std::memset(buf, 0, static_cast<std::size_t>(size));
    char path[limits::path_bytes];
    std::snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return static_cast<u32>(errno);
    }
    if (std::fgets(buf, size, file) == nullptr) {
        buf[0] = '\0';  // a process without arguments, such as a kernel thread
    }
    // fgets has also read what follows the first argument's NUL: other arguments may be private.
    const std::size_t length = std::strlen(buf);
    std::memset(buf + length, 0, static_cast<std::size_t>(size) - length);
    std::fclose(file);
    return result::ok;
}

void _scc_svrid_inc(void) {
    g_scc_server_id.fetch_add(1, std::memory_order_relaxed);
}

u32 _get_get_avail_svrid(void) {
    return g_scc_server_id.load(std::memory_order_relaxed);
}

u32 _scc_get_cur_svrid(void) {
    return g_scc_server_id.load(std::memory_order_relaxed);
}
}
