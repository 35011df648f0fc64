// A spawned process whose missing output fails the test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/spawned_process.h"

namespace test {

class child_process : public spawned_process {
  public:
    static constexpr std::chrono::seconds patience{60};

    child_process(const std::string& program, std::vector<std::string> arguments)
        : spawned_process(program, std::move(arguments)) {
        EXPECT_GT(pid(), 0);
    }

    // The position after the first line with this text at or after `from`. Fails the test if there is none.
    std::size_t wait_for_line(const std::string& text, std::size_t from = 0) {
        const std::optional<std::size_t> after = line_after(text, from, patience);
        if (!after) {
            ADD_FAILURE() << "no line with: " << text;
        }
        return after.value_or(line_count());
    }
};

}  // namespace test
