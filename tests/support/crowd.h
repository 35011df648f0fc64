// Connections that keep a daemon so busy that the next one to connect has to wait.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace test {

// Connects to the daemon of that directory until it has no room for one more.
inline std::vector<int> crowd(const temp_dir& directory) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = directory.runtime() + "/.sccd_sd_";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    std::vector<int> connected;
    for (;;) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            EXPECT_EQ(errno, EAGAIN);
            close(fd);
            return connected;
        }
        connected.push_back(fd);
    }
}

}  // namespace test
