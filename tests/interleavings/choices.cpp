#include "choices.h"

namespace interleavings {
namespace {

constexpr std::string_view digits = "0123456789abcdefghijklmnopqrstuvwxyz";

}  // namespace

unsigned choices::next(unsigned options) {
    if (options <= 1) {
        return 0;
    }
    if (at_ == path_.size()) {
        path_.push_back({options, 0});
    }
    decision& here = path_[at_++];
    if (here.options == 0) {
        here.options = options;
    }
    if (here.options != options || here.taken >= options) {
        diverged_ = true;
        return 0;
    }
    return here.taken;
}

bool choices::advance() {
    path_.resize(at_);  // without decisions that the execution did not reach
    while (!path_.empty() && path_.back().taken + 1 == path_.back().options) {
        path_.pop_back();
    }
    at_ = 0;
    if (path_.empty()) {
        return false;
    }
    ++path_.back().taken;
    return true;
}

std::string choices::text() const {
    std::string result;
    for (std::size_t i = 0; i < at_; ++i) {
        result += path_[i].taken < digits.size() ? digits[path_[i].taken] : '?';
    }
    result.erase(result.find_last_not_of('0') + 1);
    return result.empty() ? "0" : result;
}

bool choices::repeat(std::string_view text) {
    path_.clear();
    at_ = 0;
    for (const char digit : text) {
        const std::size_t taken = digits.find(digit);
        if (taken == std::string_view::npos) {
            return false;
        }
        path_.push_back({0, static_cast<unsigned>(taken)});
    }
    return true;
}

}  // namespace interleavings
