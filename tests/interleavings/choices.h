// The decisions of one execution, and the next execution's in depth-first order.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace interleavings {

class choices {
  public:
    // One of `options`, the first when this point is reached for the first time.
    unsigned next(unsigned options);
    // Prepares the next execution. False when all have been made.
    [[nodiscard]] bool advance();
    void rewind() { at_ = 0; }

    // The decisions so far, to be given to repeat(): one character each, without those that are the first
    // option to the end.
    [[nodiscard]] std::string text() const;
    // Makes the given decisions first. False when the text is none.
    [[nodiscard]] bool repeat(std::string_view text);
    // Whether a repeated execution did not offer the same decisions.
    [[nodiscard]] bool has_diverged() const { return diverged_; }

  private:
    struct decision {
        unsigned options;  // 0 while a repeated decision has not been reached
        unsigned taken;
    };
    std::vector<decision> path_;
    std::size_t at_ = 0;
    bool diverged_ = false;
};

}  // namespace interleavings
