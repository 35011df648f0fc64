// Bytes as they are written by hand in the tests.
#pragma once

#include <initializer_list>
#include <string>

namespace scc::kernel::testing {

inline std::string bytes(std::initializer_list<int> numbers) {
    std::string text;
    for (const int number : numbers) {
        text += static_cast<char>(number);
    }
    return text;
}

}  // namespace scc::kernel::testing
