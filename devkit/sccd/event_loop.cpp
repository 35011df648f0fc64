#include "sccd/event_loop.h"

#include <sys/time.h>

#include <algorithm>
#include <stdexcept>

namespace scc::sccd {

event_loop::event_loop() : base_(::event_base_new()) {
    if (base_ == nullptr) {
        throw std::runtime_error("no event loop");
    }
    timer_ = make_event(
        -1, 0, [](int, short, void* loop) { static_cast<event_loop*>(loop)->run_timers(); }, this);
    turn_end_ = make_event(
        -1, 0, [](int, short, void* loop) { static_cast<event_loop*>(loop)->run_deferred(); }, this);
}

owned_event event_loop::make_event(int descriptor, short what, event_callback_fn ready, void* context) {
    owned_event made(::event_new(base_.get(), descriptor, what, ready, context));
    if (made == nullptr) {
        throw std::runtime_error("no memory for an event");
    }
    return made;
}

void event_loop::add(const owned_event& watched) {
    if (::event_add(watched.get(), nullptr) != 0) {
        throw std::runtime_error("a descriptor cannot be watched");
    }
}

event_loop::timer_id event_loop::after(std::chrono::milliseconds delay, loop_action action) {
    const timer_id timer{clock::now() + delay, ++last_id_};
    const auto place = timers_.emplace(timer, std::move(action)).first;
    if (place == timers_.begin()) {
        expect_next_timer();
    }
    return timer;
}

void event_loop::expect_next_timer() {
    if (timers_.empty()) {
        return;
    }
    using std::chrono::microseconds;
    const auto left = std::max(microseconds{0},
                               std::chrono::ceil<microseconds>(timers_.begin()->first.first - clock::now()));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timeval delay{seconds.count(), (left - seconds).count()};
    ::event_add(timer_.get(), &delay);
}

void event_loop::run_timers() {
    const clock::time_point now = clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto timer = timers_.extract(timers_.begin());
        timer.mapped()();
    }
    expect_next_timer();
}

void event_loop::defer(loop_action action) {
    if (deferred_.empty()) {
        // It is queued after the events of this turn.
        ::event_active(turn_end_.get(), 0, 0);
    }
    deferred_.push_back(std::move(action));
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

void event_loop::run() {
    ::event_base_loop(base_.get(), EVLOOP_NO_EXIT_ON_EMPTY);
}

void event_loop::stop() {
    ::event_base_loopexit(base_.get(), nullptr);
}

}  // namespace scc::sccd
