// scc-ss-linux as a process that cannot do what it should: write, register, or change the kernel.
#include <fstream>

#include "devkit/child_program.h"
#include "devkit/sccd_support.h"
#include "kernel_support.h"

namespace scc::kernel {
namespace {

using namespace testing;
using sccd_test::daemon_process;

// Its lines are those of standard error; standard output goes where the test says.
class service_in_shell : public sccd_test::child_program {
  public:
    service_in_shell(const std::string& before, const std::string& arguments, const std::string& output)
        : child_program("/bin/sh",
                        {"-c", before + " " + SERVICE_LINUX_PATH + " " + arguments + " 2>&1 > " + output}) {}
    int exit_code() { return WEXITSTATUS(wait_for_end()); }
};

class LinuxServiceErrors : public ::testing::Test {
  protected:
    void SetUp() override {
        NEED_A_NAMESPACE();
        std::ofstream(map_) << "ifx 1 lo\n";
    }

    daemon_process daemon_;
    const std::string map_ = daemon_.directory() + "/map";
};

TEST_F(LinuxServiceErrors, OutputThatCannotBeWrittenIsToldAtTheEnd) {
    service_in_shell service("exec", "--map " + map_, "/dev/full");
    // It has its tables when the recovery is over.
    while (output_of("nft list tables").find("scclib") == std::string::npos) {
    }
    // It prints its tables before it takes the other signal, whose number is higher.
    service.signal(SIGUSR2);
    service.signal(SIGTERM);
    EXPECT_EQ(service.line(), "scc-ss-linux: standard output: No space left on device");
    EXPECT_EQ(service.exit_code(), 1);
}

TEST_F(LinuxServiceErrors, HelpThatCannotBeWrittenIsAFailure) {
    service_in_shell service("exec", "--help", "/dev/full");
    EXPECT_EQ(service.line().find("scc-ss-linux: standard output: "), 0u);
    EXPECT_EQ(service.exit_code(), 1);
}

TEST_F(LinuxServiceErrors, WithoutARegistrationItEnds) {
    service_in_shell service("TMPDIR=" + map_ + " exec", "--map " + map_, "/dev/null");
    EXPECT_EQ(service.line().find("scc-ss-linux: registration: "), 0u);
    EXPECT_EQ(service.exit_code(), 1);
}

TEST_F(LinuxServiceErrors, WithoutTheRightToConfigureTheNetworkItEnds) {
    for (const std::string& arguments : {"--map " + map_, std::string("--flush")}) {
        service_in_shell service("exec setpriv --bounding-set=-net_admin --inh-caps=-net_admin", arguments,
                                 "/dev/null");
        EXPECT_EQ(service.line(), "scc-ss-linux: the kernel's packet filter: Operation not permitted");
        EXPECT_EQ(service.exit_code(), 1);
    }
}

TEST_F(LinuxServiceErrors, AFlushLeavesTheTablesOfOthers) {
    command("nft add table inet other && nft add table netdev scclib && nft add chain netdev scclib c");
    service_in_shell service("exec", "--flush", "/dev/null");
    EXPECT_EQ(service.exit_code(), 0);
    EXPECT_EQ(output_of("nft list tables"), "table inet other\n");
}

}  // namespace
}  // namespace scc::kernel
