#include "sweep/fault_plan.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <set>

namespace sweep {
namespace {

std::string error_name(int error) {
    const char* name = strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

int error_of(const std::string& name) {
    for (int error = 1; error < 134; ++error) {
        if (error_name(error) == name) {
            return error;
        }
    }
    return std::atoi(name.c_str());
}

struct way {
    effect what;
    int error;
};

std::vector<way> errors(std::initializer_list<int> numbers) {
    std::vector<way> out;
    for (const int number : numbers) {
        out.push_back({effect::error, number});
    }
    return out;
}

// The errors that the manual pages name and that a signal, a full table or a careless host can cause. The
// kernel reports no error when it closes a Unix-domain socket.
const std::map<std::string, std::vector<way>>& ways() {
    static const auto* table = [] {
        auto* out = new std::map<std::string, std::vector<way>>{
            {"malloc", errors({ENOMEM})},
            {"calloc", errors({ENOMEM})},
            {"realloc", errors({ENOMEM})},
            {"socket", errors({EMFILE, ENFILE, ENOBUFS, EACCES})},
            {"bind", errors({EADDRINUSE, EACCES, ENOENT, EROFS, ENOSPC})},
            {"connect", errors({ECONNREFUSED, ENOENT, EAGAIN, EINTR, EACCES, ETIMEDOUT})},
            {"setsockopt", errors({ENOPROTOOPT, EINVAL})},
            {"getsockopt", errors({ENOPROTOOPT, EINVAL})},
            {"shutdown", errors({ENOTCONN})},
            {"send", errors({EPIPE, ECONNRESET, EAGAIN, EINTR, ENOBUFS, ENOMEM, EBADF, ENOTCONN})},
            {"recv", errors({ECONNRESET, EAGAIN, EINTR, ENOMEM, EBADF, ENOTCONN})},
            {"poll", errors({EINTR, ENOMEM, EINVAL})},
            {"select", errors({EINTR, ENOMEM, EBADF})},
            {"open", errors({ENOENT, EMFILE, EACCES, ENOMEM, ELOOP, EINTR})},
            {"openat", errors({ENOENT, EMFILE, EACCES, ENOMEM, ELOOP, EINTR})},
            {"fopen", errors({ENOENT, EMFILE, EACCES, ENOMEM})},
            {"fdopen", errors({ENOMEM})},
            {"fgets", errors({EIO, EINTR})},
            {"read", errors({EIO, EINTR})},
            {"fclose", errors({EIO})},
            {"fcntl", errors({EINVAL, EINTR})},
            {"stat", errors({ENOENT, EACCES})},
            {"lstat", errors({ENOENT, EACCES})},
            {"fstat", errors({EOVERFLOW, ENOMEM})},
            {"fstatat", errors({ENOENT, EACCES})},
            {"chmod", errors({EPERM, EROFS, ENOENT})},
            {"fchmod", errors({EPERM, EROFS})},
            {"fchmodat", errors({EPERM, EROFS})},
            {"mkdir", errors({EACCES, ENOSPC, EROFS, ENOENT, EINTR})},
            {"mkdirat", errors({EACCES, ENOSPC, EROFS, ENOENT, EINTR})},
            {"unlink", errors({EACCES, EBUSY, EROFS})},
            {"unlinkat", errors({EACCES, EBUSY, EROFS})},
            {"rename", errors({EACCES, EROFS})},
            {"getcwd", errors({ENOENT, ERANGE})},
            {"pthread_create", errors({EAGAIN, EPERM})},
            {"pthread_condattr_init", errors({ENOMEM})},
            {"pthread_cond_init", errors({EAGAIN, ENOMEM})},
            {"prctl", errors({EPERM, EINVAL})},
            {"sysinfo", errors({EFAULT})},
            {"sleep", errors({EINTR})},
            {"nanosleep", errors({EINTR})},
            {"qx_thread_add_event_withname", errors({ENOMEM})},
            {"qx_thread_add_timer_withname", errors({ENOMEM})},
            {"qx_thread_add_read_high_withname", errors({ENOMEM})},
            {"qx_thread_add_write_withname", errors({ENOMEM})},
        };
        for (const char* transfer : {"send", "recv"}) {
            auto& entry = (*out)[transfer];
            entry.push_back({effect::shortened, 0});
            for (const int error : {EAGAIN, EINTR, ECONNRESET}) {
                entry.push_back({effect::torn, error});
            }
        }
        (*out)["recv"].push_back({effect::end, 0});
        return out;
    }();
    return *table;
}

// Which of a site's calls fail: all if they are few, otherwise the first, the last and some in between.
std::set<unsigned> turns(unsigned calls, unsigned few) {
    std::set<unsigned> out;
    for (unsigned nth = 1; nth <= std::min(calls, few); ++nth) {
        out.insert(nth);
    }
    for (unsigned part = 1; part < few && calls > few; ++part) {
        out.insert(few + (calls - few) * part / few);
    }
    return out;
}

constexpr unsigned few_memory_calls = 40;
constexpr unsigned few_calls = 8;
constexpr unsigned few_onwards = 3;

}  // namespace

std::string effect_text(const fault& one) {
    switch (one.what) {
        case effect::end:
            return "end";
        case effect::shortened:
            return "short";
        case effect::torn:
            return "torn-" + error_name(one.error);
        case effect::error:
            break;
    }
    return error_name(one.error);
}

std::string text_of(const fault& one) {
    char site[32];
    std::snprintf(site, sizeof site, "%zx", one.site);
    return one.call + "@" + site + ":" + std::to_string(one.nth) + ":" + effect_text(one) +
           (one.onwards ? ":onwards" : "");
}

std::optional<fault> fault_of(const std::string& text) {
    fault out;
    const std::size_t at = text.find('@');
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    if (at == std::string::npos || second == std::string::npos) {
        return std::nullopt;
    }
    out.call = text.substr(0, at);
    out.site = std::strtoul(text.c_str() + at + 1, nullptr, 16);
    out.nth = static_cast<unsigned>(std::atoi(text.c_str() + first + 1));
    std::string what = text.substr(second + 1);
    constexpr const char* onwards = ":onwards";
    if (what.ends_with(onwards)) {
        out.onwards = true;
        what.resize(what.size() - std::strlen(onwards));
    }
    if (what == "end") {
        out.what = effect::end;
    } else if (what == "short") {
        out.what = effect::shortened;
    } else if (what.starts_with("torn-")) {
        out.what = effect::torn;
        out.error = error_of(what.substr(5));
    } else {
        out.error = error_of(what);
    }
    return out;
}

void add_faults(const site_calls& site, std::vector<fault>& out) {
    const auto found = ways().find(site.call);
    if (found == ways().end()) {
        return;
    }
    const bool memory = site.call.ends_with("alloc");
    for (const way& one : found->second) {
        for (const unsigned nth : turns(site.calls, memory ? few_memory_calls : few_calls)) {
            out.push_back({site.call, site.site, nth, one.what, one.error, false});
        }
        if (one.what != effect::torn) {
            for (const unsigned nth : turns(site.calls, few_onwards)) {
                out.push_back({site.call, site.site, nth, one.what, one.error, true});
            }
        }
    }
}

}  // namespace sweep
