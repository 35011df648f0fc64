#include "service/delayed_answers.h"

#include <utility>

namespace scc::service {

void delayed_answers::start() {
    if (own_thread_) {
        thread_ = std::thread([this] { run(); });
    }
}

void delayed_answers::stop() {
    {
        const std::lock_guard guard(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void delayed_answers::send(std::function<void()> answer) {
    if (!own_thread_) {
        answer();
        return;
    }
    {
        const std::lock_guard guard(mutex_);
        waiting_.push_back({clock::now() + delay_, std::move(answer)});
    }
    changed_.notify_one();
}

void delayed_answers::run() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        if (waiting_.empty()) {
            changed_.wait(lock);
            continue;
        }
        if (const auto due = waiting_.front().due; clock::now() < due) {
            changed_.wait_until(lock, due);
            continue;
        }
        const waiting_answer next = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        next.send();
        lock.lock();
    }
}

}  // namespace scc::service
