// The decisions of one execution, and the depth-first search for the next.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace interleavings {

class choices {
  public:
    // Returns one of `options`: the first one when this point is reached for the first time.
    unsigned next(unsigned options);
    // Prepares the next execution. Returns false when all are done.
    [[nodiscard]] bool advance();
    void rewind() { at_ = 0; }

    // The decisions so far, for repeat(): one character each; trailing first options are omitted.
    [[nodiscard]] std::string text() const;
    // Makes the given decisions first. Returns false if the text is malformed.
    [[nodiscard]] bool repeat(std::string_view text);
    // Whether a repeated execution did not offer the same decisions.
    [[nodiscard]] bool has_diverged() const { return diverged_; }

  private:
    struct decision {
        unsigned options;  // 0 until a repeated decision is reached
        unsigned taken;
    };
    std::vector<decision> path_;
    std::size_t at_ = 0;
    bool diverged_ = false;
};

}  // namespace interleavings
