// The value of a hexadecimal digit.
#pragma once

namespace scc::records {

// -1 if it is none.
constexpr int hex_digit(char letter) {
    if (letter >= '0' && letter <= '9') {
        return letter - '0';
    }
    if (letter >= 'a' && letter <= 'f') {
        return letter - 'a' + 10;
    }
    if (letter >= 'A' && letter <= 'F') {
        return letter - 'A' + 10;
    }
    return -1;
}

}  // namespace scc::records
