// Programs whose standard output cannot be written.
#include "ctl_support.h"

namespace ctl_test {
namespace {

class StandardOutput : public without_daemon {
  protected:
    // Until something answers, the daemon is not ready.
    void end_daemon() {
        while (run({"daemon", "quit"}).status != 0) {
            continue;
        }
    }
    [[nodiscard]] process into_full(const std::string& program) const {
        return {"/bin/sh", {"-c", "exec " + program + " > /dev/full"}, directory()};
    }
};

TEST_F(StandardOutput, ADaemonThatCannotWriteItsOwnSaysSoAtItsEnd) {
    for (const char* options : {"", " --trace"}) {
        process full = into_full(SCCD_DEV_PATH + std::string(options));
        end_daemon();
        EXPECT_EQ(full.finish(), 1);
        EXPECT_EQ(full.errors(), "sccd-dev: standard output: No space left on device\n");
    }
}

TEST_F(StandardOutput, AServiceThatCannotWriteItsOwnSaysSoAtItsEnd) {
    process daemon(SCCD_DEV_PATH, {}, directory());
    ASSERT_EQ(daemon.line(), "sccd-dev: ready");
    process full = into_full(SERVICE_PATH);
    while (run({"clients", "--json"}).json_lines().at(0)["clients"].empty()) {
        continue;
    }
    // It says that it has no capture before it takes the other signal, whose number is higher.
    full.signal(SIGUSR1);
    full.signal(SIGTERM);
    EXPECT_EQ(full.finish(), 1);
    EXPECT_EQ(full.errors(), "scc-ss-dev: standard output: No space left on device\n");
}

TEST_F(StandardOutput, AVersionThatCannotBeWrittenIsAFailure) {
    for (const char* program : {SCCD_DEV_PATH, SERVICE_PATH}) {
        process full = into_full(program + std::string(" --version"));
        EXPECT_EQ(full.finish(), 1);
        EXPECT_NE(full.errors().find("-dev: standard output: "), std::string::npos) << full.errors();
    }
}

}  // namespace
}  // namespace ctl_test
