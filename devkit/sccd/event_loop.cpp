#include "sccd/event_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace scc::sccd {
namespace {

constexpr std::size_t events_max = 128;
constexpr std::chrono::milliseconds wait_max{60'000};

epoll_event event_of(std::uint32_t events, std::uint64_t id) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return event;
}

}  // namespace

event_loop::event_loop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
}

event_loop::~event_loop() {
    ::close(epoll_);
}

event_loop::watch_id event_loop::watch(int descriptor, std::uint32_t events, ready_handler ready) {
    const watch_id id = ++last_id_;
    epoll_event event = event_of(events, id);
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
    watches_.emplace(id, std::make_shared<ready_handler>(std::move(ready)));
    return id;
}

void event_loop::change(watch_id watch, int descriptor, std::uint32_t events) {
    epoll_event event = event_of(events, watch);
    ::epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &event);
}

void event_loop::unwatch(watch_id watch, int descriptor) {
    watches_.erase(watch);
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
}

event_loop::timer_id event_loop::after(std::chrono::milliseconds delay, loop_action action) {
    const timer_id timer{clock::now() + delay, ++last_id_};
    timers_.emplace(timer, std::move(action));
    return timer;
}

void event_loop::run() {
    running_ = true;
    std::array<epoll_event, events_max> events{};
    while (running_) {
        const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), wait_ms());
        for (int index = 0; index < count && running_; ++index) {
            // A copy, since the kernel's record is packed and find() takes a reference.
            const watch_id id = events[static_cast<std::size_t>(index)].data.u64;
            const std::uint32_t what = events[static_cast<std::size_t>(index)].events;
            // A watch that ended earlier in this turn is not found; its event is ignored.
            const auto watch = watches_.find(id);
            if (watch == watches_.end()) {
                continue;
            }
            const std::shared_ptr<ready_handler> ready = watch->second;
            (*ready)(what);
        }
        run_timers();
        run_deferred();
    }
}

int event_loop::wait_ms() const {
    if (!deferred_.empty()) {
        return 0;
    }
    if (timers_.empty()) {
        return -1;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - clock::now());
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds{0}, wait_max).count());
}

void event_loop::run_timers() {
    const clock::time_point now = clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto timer = timers_.extract(timers_.begin());
        timer.mapped()();
    }
}

void event_loop::run_deferred() {
    while (!deferred_.empty()) {
        std::vector<loop_action> actions = std::move(deferred_);
        deferred_.clear();
        for (loop_action& action : actions) {
            action();
        }
    }
}

}  // namespace scc::sccd
