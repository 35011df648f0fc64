#include "support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "client/log.h"
#include "support/log_acts.h"

namespace test {
namespace {

struct store {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<log_line> lines;
    std::string awaited;
    void (*act)() = nullptr;
};

// Never destroyed: the library's threads log until the process has gone.
store& the_store() {
    static store* one = new store;
    return *one;
}

constinit std::atomic<int> g_errno_left{0};

std::string without_prefix(const std::string& whole) {
    if (whole.empty() || whole.front() != '<') {
        return whole;
    }
    const auto end = whole.find("> ");
    return end == std::string::npos ? whole : whole.substr(end + 2);
}

bool contains(const std::vector<log_line>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(), [&](const log_line& line) { return line.text == text; });
}

}  // namespace

void clear_log() {
    const std::lock_guard guard(the_store().mutex);
    the_store().lines.clear();
}

std::vector<log_line> captured_log() {
    const std::lock_guard guard(the_store().mutex);
    return the_store().lines;
}

std::vector<std::string> log_texts() {
    std::vector<std::string> texts;
    for (const log_line& line : captured_log()) {
        texts.push_back(line.text);
    }
    return texts;
}

bool logged(const std::string& text) {
    return contains(captured_log(), text);
}

std::vector<std::string> logged_failures() {
    std::vector<std::string> failures = log_texts();
    std::erase_if(failures, [](const std::string& text) {
        return text.find("fail") == std::string::npos && text.find("error") == std::string::npos;
    });
    return failures;
}

bool wait_for_log(const std::string& text) {
    std::unique_lock guard(the_store().mutex);
    return the_store().changed.wait_for(guard, std::chrono::seconds(60),
                                        [&] { return contains(the_store().lines, text); });
}

void leave_errno_in_log(int error) {
    g_errno_left = error;
}

void on_log(const std::string& text, void (*act)()) {
    const std::lock_guard guard(the_store().mutex);
    the_store().awaited = text;
    the_store().act = act;
}

debugging::debugging() {
    clear_log();
    scc_lib_debug.store(1);
}

debugging::~debugging() {
    scc_lib_debug.store(0);
}

}  // namespace test

extern "C" int printk_syslog_ext(int level, const char* module, const char* submodule, int flag,
                                 const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    auto& store = test::the_store();
    void (*act)() = nullptr;
    {
        const std::lock_guard guard(store.mutex);
        store.lines.push_back({level, module, submodule, flag, test::without_prefix(text), text});
        store.changed.notify_all();
        if (!store.awaited.empty() && store.lines.back().text == store.awaited) {
            store.awaited.clear();
            act = store.act;
        }
    }
    if (act != nullptr) {
        act();
    }
    if (const int left = test::g_errno_left; left != 0) {
        errno = left;
    }
    return length;
}
