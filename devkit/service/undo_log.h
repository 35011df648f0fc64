// Takes changes back, newest first. Records nothing until it is told to. Not thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace scc::service {

class undo_log {
  public:
    void record() { recording_ = true; }
    [[nodiscard]] bool recording() const { return recording_; }

    void note(std::function<void()> undo) {
        if (recording_) {
            undo_.push_back(std::move(undo));
        }
    }
    // For roll_back: what was noted until now stays.
    [[nodiscard]] std::size_t mark() const { return undo_.size(); }
    void roll_back(std::size_t mark) {
        while (undo_.size() > mark) {
            const std::function<void()> undo = std::move(undo_.back());
            undo_.pop_back();
            undo();
        }
    }
    // The changes are final.
    void clear() { undo_.clear(); }

  private:
    std::vector<std::function<void()>> undo_;
    bool recording_ = false;
};

}  // namespace scc::service
