// A service that registers through the library, without a daemon.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

#include "service/security_service.h"
#include "support/remove_tree.h"

namespace scc::service {
namespace {

class ServiceRegistration : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = "/tmp/service-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { test::remove_tree(folder_); }

    // The library's directory is beside this one.
    static void use(const std::string& base) { ::setenv("TMPDIR", base.c_str(), 1); }
    static std::ptrdiff_t threads() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                             std::filesystem::directory_iterator());
    }

    // Returns when the threads that have ended are gone, or after a minute.
    static void wait_for_threads(std::ptrdiff_t most) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (threads() > most && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        EXPECT_LE(threads(), most);
    }

    // The library's threads call into it until the process exits, so it is never destroyed.
    struct parts {
        forwarding_table table;
        memory_back_end back_end{table};
        security_service service{back_end, table, {std::chrono::milliseconds(0), {}, {}, true}, {}};
    };
    static security_service& service() {
        static auto* const one = new parts;
        return one->service;
    }

    std::string folder_;
};

TEST_F(ServiceRegistration, LeavesNoThreadWhenItFails) {
    use("/proc/version/none");
    const auto before = threads();
    bool waited = false;
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_NE(service().serve([&waited] {
            waited = true;
            return false;
        }),
                  0u);
    }
    EXPECT_FALSE(waited);
    wait_for_threads(before + 1);  // with a process's first thread, a sanitizer starts one of its own
}

TEST_F(ServiceRegistration, LastsUntilTheWaitEnds) {
    use(folder_ + "/run");
    int waits = 0;
    EXPECT_EQ(service().serve([&waits] { return ++waits < 3; }), 0u);
    EXPECT_EQ(waits, 3);
}

}  // namespace
}  // namespace scc::service
