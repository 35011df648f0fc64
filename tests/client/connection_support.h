// An application that connects, as the daemon and the file system see it.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "client/channel_support.h"

namespace test {

class Connection : public runtime_test {
  protected:
    // Registers; the daemon has not answered yet.
    void begin() {
        info.app_id = 7;
        info.handlers.server_status = on_status;
        ASSERT_EQ(scc_svr_reg(&info), 0U);
    }

    std::string who() const { return "(app id:7, pid:" + own_pid() + ")"; }

    // Whether the peer closes without having sent anything.
    bool closes_silently(side where) {
        pollfd watched{daemon.fd(where), POLLIN, 0};
        std::uint8_t one = 0;
        return poll(&watched, 1, 20000) == 1 && read(daemon.fd(where), &one, 1) == 0;
    }

    bool has_no_socket_files() const {
        return !std::filesystem::exists(socket_file(".sccl_sd1_")) &&
               !std::filesystem::exists(socket_file(".sccl_sd2_"));
    }

    void expect_first_status_is_one() {
        EXPECT_EQ(statuses().wait(), 1U);
        EXPECT_EQ(statuses().size(), 0U);
    }
};

inline std::size_t times_logged(const std::string& text) {
    const auto texts = log_texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

inline std::size_t lines_with(const std::string& text) {
    const std::vector<std::string> lines = log_texts();
    return static_cast<std::size_t>(std::ranges::count_if(
        lines, [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

}  // namespace test
