#include "service/delayed_answers.h"

#include <event2/thread.h>
#include <sys/time.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace scc::service {

namespace {

// The clock is read anew for each timer: a cached or coarse time would let an answer go early.
event_base* precise_base() {
    event_config* const config = ::event_config_new();
    if (config == nullptr) {
        return nullptr;
    }
    ::event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER | EVENT_BASE_FLAG_NO_CACHE_TIME);
    event_base* const base = ::event_base_new_with_config(config);
    ::event_config_free(config);
    return base;
}

}  // namespace

u32 delayed_answers::start() {
    if (!own_thread_) {
        return 0;
    }
    const std::lock_guard guard(mutex_);
    ::evthread_use_pthreads();  // answers are given by other threads
    loop_.reset(precise_base());
    if (loop_ == nullptr) {
        return ENOMEM;
    }
    if (delay_.count() > 0) {
        const auto seconds = std::chrono::floor<std::chrono::seconds>(delay_);
        const timeval delay{seconds.count(), std::chrono::microseconds(delay_ - seconds).count()};
        wait_ = ::event_base_init_common_timeout(loop_.get(), &delay);
    }
    try {
        thread_ = std::thread([loop = loop_.get()] { ::event_base_loop(loop, EVLOOP_NO_EXIT_ON_EMPTY); });
    } catch (const std::system_error& error) {
        loop_.reset();
        return static_cast<u32>(error.code().value());
    }
    return 0;
}

void delayed_answers::stop() {
    std::unique_ptr<event_base, base_closer> ended;
    {
        const std::lock_guard guard(mutex_);
        ended = std::move(loop_);
        waiting_.clear();
    }
    if (ended != nullptr) {
        // Unlike a break, an exit is also kept for a loop that has not begun yet.
        ::event_base_loopexit(ended.get(), nullptr);
        thread_.join();
    }
}

void delayed_answers::send(std::function<void()> answer) {
    if (!own_thread_) {
        answer();
        return;
    }
    const std::lock_guard guard(mutex_);
    if (loop_ == nullptr) {
        return;
    }
    waiting_.push_back(std::move(answer));
    ::event_base_once(
        loop_.get(), -1, EV_TIMEOUT,
        [](int, short, void* answers) { static_cast<delayed_answers*>(answers)->send_next(); }, this, wait_);
}

void delayed_answers::send_next() {
    std::function<void()> next;
    {
        const std::lock_guard guard(mutex_);
        if (waiting_.empty()) {
            return;  // stopped
        }
        next = std::move(waiting_.front());
        waiting_.pop_front();
    }
    next();
}

}  // namespace scc::service
