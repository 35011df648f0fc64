#include <sys/stat.h>

#include <filesystem>

#include "sccd_support.h"

namespace sccd_test {
namespace {

const byte_string accepted{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

TEST(SccdRegistration, BothSocketsOfAClientAreAccepted) {
    daemon_process daemon;
    wire_socket sync(daemon.socket_path());
    wire_socket async(daemon.socket_path());

    const test_item first = register_socket(sync, 3, 77, true);
    const test_item second = register_socket(async, 3, 77, false);

    EXPECT_EQ(first.type, 301);
    EXPECT_EQ(first.value, accepted);
    EXPECT_EQ(second.type, 301);
    EXPECT_EQ(second.value, accepted);
}

TEST(SccdRegistration, ASecondHolderIsRefusedWithTheOwnersPid) {
    daemon_process daemon;
    test_client owner(daemon, 3, 77);
    wire_socket other(daemon.socket_path());

    const test_item reply = register_socket(other, 3, 78, true);

    EXPECT_EQ(reply.value, (byte_string{0, 0, 0, 0, 0xd2, 0x07, 0, 0, 77, 0, 0, 0}));
}

TEST(SccdRegistration, AppIdsBelowOneAndAboveNineteenAreRejected) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_path());

    EXPECT_EQ(register_socket(wire, 0, 77, true).u32(4), 2000u);
    EXPECT_EQ(register_socket(wire, 20, 77, true).u32(4), 2000u);
    EXPECT_EQ(register_socket(wire, 19, 77, true).u32(4), 0u);
}

TEST(SccdRegistration, AShortRegistrationIsRefusedAsInvalid) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_path());

    wire.send(301, wire_value(9).u32(0, 3).u32(4, 77));

    EXPECT_EQ(wire.receive().u32(4), 22u);
}

TEST(SccdRegistration, TheAppIdIsFreeAgainWhenOneSocketCloses) {
    daemon_process daemon;
    test_client owner(daemon, 3, 77);

    owner.async.close();

    EXPECT_TRUE(owner.sync.ends());
    test_client successor(daemon, 3, 78);
}

TEST(SccdRegistration, TheSameProcessRegisteringAgainReplacesItsOldConnection) {
    daemon_process daemon;
    test_client before(daemon, 3, 77);
    test_client after(daemon, 3, 77);

    EXPECT_TRUE(before.sync.ends());
    EXPECT_TRUE(before.async.ends());
    EXPECT_EQ(after.result_of(108, wire_value(8).u32(0, 5).u32(4, 1)), 0u);
}

TEST(SccdRegistration, UnregistrationFreesTheAppIdAndLeavesTheSocketsOpen) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    const test_item reply = client.query(302, wire_value(4).u32(0, 3));

    EXPECT_EQ(reply.type, 302);
    EXPECT_EQ(reply.value, (byte_string{0, 0, 0, 0, 0, 0, 0, 0}));
    test_client successor(daemon, 3, 78);
    EXPECT_EQ(client.query(302, wire_value(4).u32(0, 3)).u32(4), 2003u);
}

TEST(SccdRegistration, UnregistrationOfAnotherAppIdIsRefused) {
    daemon_process daemon;
    test_client client(daemon, 3, 77);

    EXPECT_EQ(client.query(302, wire_value(4).u32(0, 4)).u32(4), 2003u);
    EXPECT_EQ(client.query(302, wire_value(4).u32(0, 3)).u32(4), 0u);
}

TEST(SccdRegistration, RequestsOfAnUnregisteredSocketAreIgnored) {
    daemon_process daemon;
    wire_socket wire(daemon.socket_path());

    wire.send(
        {item(131, acl_request(1, 1, 1)), item(303, wire_value(0)), item(301, registration(3, 77, true))});

    EXPECT_EQ(wire.receive().type, 301);
    EXPECT_EQ(control({{"do", "acls"}})["acls"].size(), 0u);
}

TEST(SccdRegistration, TheDirectoryAndTheSocketAreOpenToEveryone) {
    daemon_process daemon;
    struct stat directory {};
    struct stat socket {};

    ASSERT_EQ(::stat(daemon.socket_directory().c_str(), &directory), 0);
    ASSERT_EQ(::stat(daemon.socket_path().c_str(), &socket), 0);

    EXPECT_EQ(directory.st_mode & 0777u, 0777u);
    EXPECT_EQ(socket.st_mode & 0222u, 0222u);
}

TEST(SccdRegistration, ALinkToTheDirectoryDoesNotOpenItsTargetToEveryone) {
    using std::filesystem::perms;
    daemon_process daemon;
    daemon.signal(SIGTERM);
    daemon.wait_for_end();
    const std::string target = daemon.directory() + "/target";
    std::filesystem::rename(daemon.socket_directory(), target);
    std::filesystem::permissions(target, perms::owner_all);
    std::filesystem::create_directory_symlink(target, daemon.socket_directory());

    daemon.start();

    EXPECT_EQ(std::filesystem::status(target).permissions(), perms::owner_all);
    test_client client(daemon, 3, 77);
}

TEST(SccdRegistration, SigtermEndsTheDaemonAndRemovesItsSockets) {
    daemon_process daemon;

    daemon.signal(SIGTERM);
    const int status = daemon.wait_for_end();

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(std::filesystem::is_empty(daemon.socket_directory()));
}

TEST(SccdRegistration, AStaleSocketOfAKilledDaemonIsReplaced) {
    daemon_process daemon;
    daemon.signal(SIGKILL);
    daemon.wait_for_end();
    ASSERT_TRUE(std::filesystem::exists(daemon.socket_path()));

    daemon.start();

    test_client client(daemon, 3, 77);
}

TEST(SccdRegistration, ASecondDaemonInTheSameDirectoryGivesUp) {
    daemon_process daemon;

    const int status = std::system(SCCD_DEV_PATH " >/dev/null 2>&1");

    EXPECT_EQ(WEXITSTATUS(status), 1);
    test_client client(daemon, 3, 77);
}

}  // namespace
}  // namespace sccd_test
