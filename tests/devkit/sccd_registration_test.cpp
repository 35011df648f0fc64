#include <sys/stat.h>

#include "sccd_support.h"

namespace sccd_test {
namespace {

const ByteString accepted{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

TEST(SccdRegistration, BothSocketsOfAClientAreAccepted) {
    DaemonProcess daemon;
    Wire sync(daemon.socket_path());
    Wire async(daemon.socket_path());

    const TestItem first = register_socket(sync, 3, 77, true);
    const TestItem second = register_socket(async, 3, 77, false);

    EXPECT_EQ(first.type, 301);
    EXPECT_EQ(first.value, accepted);
    EXPECT_EQ(second.type, 301);
    EXPECT_EQ(second.value, accepted);
}

TEST(SccdRegistration, ASecondHolderIsRefusedWithTheOwnersPid) {
    DaemonProcess daemon;
    TestClient owner(daemon, 3, 77);
    Wire other(daemon.socket_path());

    const TestItem reply = register_socket(other, 3, 78, true);

    EXPECT_EQ(reply.value, (ByteString{0, 0, 0, 0, 0xd2, 0x07, 0, 0, 77, 0, 0, 0}));
}

TEST(SccdRegistration, AppIdsBelowOneAndAboveNineteenAreRejected) {
    DaemonProcess daemon;
    Wire wire(daemon.socket_path());

    EXPECT_EQ(register_socket(wire, 0, 77, true).u32(4), 2000u);
    EXPECT_EQ(register_socket(wire, 20, 77, true).u32(4), 2000u);
    EXPECT_EQ(register_socket(wire, 19, 77, true).u32(4), 0u);
}

TEST(SccdRegistration, AShortRegistrationIsRefusedAsInvalid) {
    DaemonProcess daemon;
    Wire wire(daemon.socket_path());

    wire.send(301, Value(9).u32(0, 3).u32(4, 77));

    EXPECT_EQ(wire.receive().u32(4), 22u);
}

TEST(SccdRegistration, TheAppIdIsFreeAgainWhenOneSocketCloses) {
    DaemonProcess daemon;
    TestClient owner(daemon, 3, 77);

    owner.async.close();

    EXPECT_TRUE(owner.sync.ends());
    TestClient successor(daemon, 3, 78);
}

TEST(SccdRegistration, TheSameProcessRegisteringAgainReplacesItsOldConnection) {
    DaemonProcess daemon;
    TestClient before(daemon, 3, 77);
    TestClient after(daemon, 3, 77);

    EXPECT_TRUE(before.sync.ends());
    EXPECT_TRUE(before.async.ends());
    EXPECT_EQ(after.result_of(108, Value(8).u32(0, 5).u32(4, 1)), 0u);
}

TEST(SccdRegistration, UnregistrationFreesTheAppIdAndLeavesTheSocketsOpen) {
    DaemonProcess daemon;
    TestClient client(daemon, 3, 77);

    const TestItem reply = client.query(302, Value(4).u32(0, 3));

    EXPECT_EQ(reply.type, 302);
    EXPECT_EQ(reply.value, (ByteString{0, 0, 0, 0, 0, 0, 0, 0}));
    TestClient successor(daemon, 3, 78);
    EXPECT_EQ(client.query(302, Value(4).u32(0, 3)).u32(4), 2003u);
}

TEST(SccdRegistration, UnregistrationOfAnotherAppIdIsRefused) {
    DaemonProcess daemon;
    TestClient client(daemon, 3, 77);

    EXPECT_EQ(client.query(302, Value(4).u32(0, 4)).u32(4), 2003u);
    EXPECT_EQ(client.query(302, Value(4).u32(0, 3)).u32(4), 0u);
}

TEST(SccdRegistration, RequestsOfAnUnregisteredSocketAreIgnored) {
    DaemonProcess daemon;
    Wire wire(daemon.socket_path());

    wire.send({item(131, acl_request(1, 1, 1)), item(303, Value(0)), item(301, registration(3, 77, true))});

    EXPECT_EQ(wire.receive().type, 301);
    EXPECT_EQ(control({{"do", "acls"}})["acls"].size(), 0u);
}

TEST(SccdRegistration, TheDirectoryAndTheSocketAreOpenToEveryone) {
    DaemonProcess daemon;
    struct stat directory {};
    struct stat socket {};

    ASSERT_EQ(::stat(daemon.socket_directory().c_str(), &directory), 0);
    ASSERT_EQ(::stat(daemon.socket_path().c_str(), &socket), 0);

    EXPECT_EQ(directory.st_mode & 0777u, 0777u);
    EXPECT_EQ(socket.st_mode & 0222u, 0222u);
}

TEST(SccdRegistration, SigtermEndsTheDaemonAndRemovesItsSockets) {
    DaemonProcess daemon;

    daemon.signal(SIGTERM);
    const int status = daemon.wait_for_end();

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(std::filesystem::is_empty(daemon.socket_directory()));
}

TEST(SccdRegistration, AStaleSocketOfAKilledDaemonIsReplaced) {
    DaemonProcess daemon;
    daemon.signal(SIGKILL);
    daemon.wait_for_end();
    ASSERT_TRUE(std::filesystem::exists(daemon.socket_path()));

    daemon.start();

    TestClient client(daemon, 3, 77);
}

TEST(SccdRegistration, ASecondDaemonInTheSameDirectoryGivesUp) {
    DaemonProcess daemon;

    const int status = std::system(SCCD_DEV_PATH " >/dev/null 2>&1");

    EXPECT_EQ(WEXITSTATUS(status), 1);
    TestClient client(daemon, 3, 77);
}

}  // namespace
}  // namespace sccd_test
