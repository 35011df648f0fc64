// Removes a test's directory while threads of the library may still make and remove sockets there.
#pragma once

#include <filesystem>
#include <system_error>

namespace test {

// Begins again when what it was about to remove is gone, or something new has come.
inline void remove_tree(const std::filesystem::path& top) {
    constexpr int attempts = 1000;
    std::error_code error;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        std::filesystem::remove_all(top, error);
        if (!error) {
            return;
        }
    }
}

}  // namespace test
