// Who owns the two descriptors: lending, closing once, registrations and connections told apart.
#include "client/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <memory>

#include "client/channel_support.h"
#include "client/connection.h"
#include "client/lifetime.h"

using scc::borrowed_descriptor;
using scc::channel;

namespace {

class Descriptors : public test::runtime_test {
  protected:
    Descriptors() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sync_pair), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, async_pair), 0);
    }
    ~Descriptors() override {
        close(sync_pair[1]);
        close(async_pair[1]);
    }

    void install(std::uint32_t generation) {
        ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_pair[0], generation));
        ASSERT_TRUE(scc::install_descriptor(channel::async, async_pair[0], generation));
    }

    static bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

    int sync_pair[2] = {-1, -1};
    int async_pair[2] = {-1, -1};
};

TEST_F(Descriptors, ClosingClosesBothRemovesTheFilesAndRaisesTheFlag) {
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    for (const char* name : {".sccl_sd1_", ".sccl_sd2_"}) {
        close(creat(socket_file(name).c_str(), 0600));
    }
    install(scc::begin_generation());
    EXPECT_TRUE(_scc_lib_client_is_connected());
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_FALSE(is_open(sync_pair[0]));
    EXPECT_FALSE(is_open(async_pair[0]));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), -1);
    EXPECT_FALSE(_scc_lib_client_is_connected());
    EXPECT_EQ(scc_lib_rereg.load(), 1);
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    EXPECT_FALSE(std::filesystem::exists(socket_file(".sccl_sd2_")));
}

TEST_F(Descriptors, ADescriptorOfZeroIsNeverClosed) {
    g_scc_client_cb.sync_fd = 0;
    g_scc_client_cb.async_fd = 0;
    EXPECT_TRUE(_scc_lib_client_is_connected());
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), 0);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), 0);
    close(sync_pair[0]);
    close(async_pair[0]);
}

TEST_F(Descriptors, AFailedCloseIsMinusOneAndTheFilesStay) {
    const test::debugging on;
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    close(creat(socket_file(".sccl_sd1_").c_str(), 0600));
    g_scc_client_cb.sync_fd = 999;
    g_scc_client_cb.async_fd = 998;
    EXPECT_EQ(_scc_lib_client_close(), -1);
    EXPECT_EQ(test::log_texts(),
              (std::vector<std::string>{"close sync socket failed!!!", "reason:Bad file descriptor",
                                        "close async socket failed!!!", "reason:Bad file descriptor"}));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), 999);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), 998);
    EXPECT_EQ(scc_lib_rereg.load(), 0);
    EXPECT_TRUE(std::filesystem::exists(socket_file(".sccl_sd1_")));
    close(sync_pair[0]);
    close(async_pair[0]);
}

TEST_F(Descriptors, OneFailedCloseIsMinusOneAndTheOtherSocketIsClosed) {
    g_scc_client_cb.sync_fd = 999;
    g_scc_client_cb.async_fd = async_pair[0];
    EXPECT_EQ(_scc_lib_client_close(), -1);
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), 999);
    EXPECT_FALSE(is_open(async_pair[0]));
    g_scc_client_cb.sync_fd = sync_pair[0];
    g_scc_client_cb.async_fd = 999;
    EXPECT_EQ(_scc_lib_client_close(), -1);
    EXPECT_EQ(g_scc_client_cb.async_fd.load(), 999);
    EXPECT_FALSE(is_open(sync_pair[0]));
}

// The name without the process number's last digit may be another process's.
TEST_F(Descriptors, AFileWhoseNameWouldBeCutIsLeftAlone) {
    g_scc_client_cb.pid = static_cast<std::uint32_t>(getpid());
    const std::size_t fixed = std::string("/security/scc/.sccl_sd1_").size() + test::own_pid().size();
    std::string longest = daemon.directory().path() + "/";
    longest.append(108 - fixed - longest.size(), 'd');
    const std::filesystem::path runtime = longest + "/security/scc";
    std::filesystem::create_directories(runtime);
    const std::string pid = test::own_pid();
    const auto other = runtime / (".sccl_sd1_" + pid.substr(0, pid.size() - 1));
    ASSERT_EQ(other.string().size(), 107U);
    close(creat(other.c_str(), 0600));
    setenv("TMPDIR", longest.c_str(), 1);
    install(scc::begin_generation());
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_TRUE(std::filesystem::exists(other));
}

TEST_F(Descriptors, WithoutAPathTheSocketsAreClosedAndTheResultIs1) {
    install(scc::begin_generation());
    unsetenv("TMPDIR");
    EXPECT_EQ(_scc_lib_client_close(), 1);
    EXPECT_FALSE(is_open(sync_pair[0]));
    EXPECT_EQ(scc_lib_rereg.load(), 0);
}

TEST_F(Descriptors, ALentDescriptorIsClosedByItsLastBorrower) {
    install(scc::begin_generation());
    {
        const borrowed_descriptor first(channel::sync);
        EXPECT_EQ(first.fd(), sync_pair[0]);
        {
            const borrowed_descriptor second(channel::sync);
            EXPECT_EQ(second.fd(), sync_pair[0]);
            EXPECT_EQ(_scc_lib_client_close(), 0);
            EXPECT_FALSE(is_open(async_pair[0]));
            EXPECT_EQ(borrowed_descriptor(channel::sync).fd(), -1);
        }
        EXPECT_TRUE(is_open(sync_pair[0]));
    }
    EXPECT_FALSE(is_open(sync_pair[0]));
}

TEST_F(Descriptors, ClosingReleasesABlockedReader) {
    install(scc::begin_generation());
    std::thread reading([] {
        const borrowed_descriptor borrowed(channel::sync);
        test::entered().push(1);
        char one = 0;
        EXPECT_EQ(recv(borrowed.fd(), &one, 1, 0), 0);
    });
    ASSERT_TRUE(test::entered().wait());
    EXPECT_EQ(_scc_lib_client_close(), 0);
    reading.join();
    EXPECT_FALSE(is_open(sync_pair[0]));
}

TEST_F(Descriptors, AnEarlierConnectionLendsNothing) {
    const std::uint32_t generation = scc::begin_generation();
    const std::uint32_t before = scc::connection_epoch();
    install(generation);
    EXPECT_EQ(borrowed_descriptor(channel::async, before).fd(), async_pair[0]);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    EXPECT_NE(scc::connection_epoch(), before);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sync_pair), 0);
    ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_pair[0], generation));
    EXPECT_EQ(borrowed_descriptor(channel::sync, before).fd(), -1);
    EXPECT_EQ(borrowed_descriptor(channel::sync).fd(), sync_pair[0]);
    EXPECT_FALSE(scc::close_descriptors_of(before));
    EXPECT_TRUE(is_open(sync_pair[0]));
    EXPECT_TRUE(scc::close_descriptors_of(scc::connection_epoch()));
    EXPECT_FALSE(is_open(sync_pair[0]));
}

TEST_F(Descriptors, AThreadOfAnEarlierRegistrationChangesNothing) {
    const std::uint32_t earlier = scc::begin_generation();
    const std::uint32_t current = scc::begin_generation();
    EXPECT_FALSE(scc::is_current(earlier));
    EXPECT_EQ(scc::current_generation(), current);
    EXPECT_EQ(scc::epoch_of(earlier), 0U);
    EXPECT_EQ(scc::epoch_of(current), scc::connection_epoch());
    EXPECT_FALSE(scc::set_state_of(earlier, 4));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_FALSE(scc::reset_connection(earlier));
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    EXPECT_FALSE(scc::install_descriptor(channel::sync, sync_pair[0], earlier));
    EXPECT_FALSE(is_open(sync_pair[0]));
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    g_scc_client_cb.handlers.server_status = test::on_status;
    scc::notify_status(0, earlier);
    EXPECT_EQ(test::statuses().size(), 0U);
    scc::notify_status(1, current);
    EXPECT_EQ(test::statuses().size(), 1U);
    EXPECT_TRUE(scc::set_state_of(current, 3));
    EXPECT_EQ(g_scc_client_cb.state.load(), 3U);
    scc::end_generation();
    EXPECT_FALSE(scc::is_current(current));
    close(async_pair[0]);
}

TEST_F(Descriptors, OnlyTheConnectionsOwnEndSetsStateAndDescriptors) {
    install(scc::begin_generation());
    const std::uint32_t epoch = scc::connection_epoch();
    _scc_client_state_set(4);
    EXPECT_FALSE(scc::end_connection_of(epoch - 1, 5));
    scc::shut_down_connection(epoch - 1);
    EXPECT_FALSE(scc::is_shut_down(epoch));
    scc::set_idle_of(epoch - 1);
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    EXPECT_TRUE(is_open(sync_pair[0]));
    EXPECT_TRUE(scc::end_connection_of(epoch, 5));
    EXPECT_EQ(g_scc_client_cb.state.load(), 5U);
    EXPECT_FALSE(is_open(sync_pair[0]));
}

TEST_F(Descriptors, TheStateIsSetBackOnlyWhileTheAppIdIsAway) {
    _scc_client_state_set(4);
    g_scc_client_cb.app_id = 7;
    scc::set_idle_of(scc::connection_epoch());
    EXPECT_EQ(g_scc_client_cb.state.load(), 4U);
    g_scc_client_cb.app_id = 0;
    scc::set_idle_of(scc::connection_epoch());
    EXPECT_EQ(g_scc_client_cb.state.load(), 1U);
    close(sync_pair[0]);
    close(async_pair[0]);
}

TEST_F(Descriptors, ABrokenConnectionIsShutDownOnlyWhileItIsRegistered) {
    install(scc::begin_generation());
    _scc_client_state_set(3);
    scc::report_broken(scc::connection_epoch());
    EXPECT_EQ(scc_lib_rereg.load(), 0);
    EXPECT_EQ(send(sync_pair[1], "x", 1, MSG_NOSIGNAL), 1);
    _scc_client_state_set(4);
    scc::report_broken(scc::connection_epoch());
    EXPECT_EQ(scc_lib_rereg.load(), 1);
    EXPECT_EQ(send(sync_pair[1], "x", 1, MSG_NOSIGNAL), -1);
}

TEST_F(Descriptors, AShutDownLeavesAMissingSocketAlone) {
    ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_pair[0], scc::begin_generation()));
    scc::shut_down_connection(scc::connection_epoch());
    EXPECT_EQ(send(sync_pair[1], "x", 1, MSG_NOSIGNAL), -1);
    EXPECT_EQ(send(async_pair[1], "x", 1, MSG_NOSIGNAL), 1);
    close(async_pair[0]);
}

TEST_F(Descriptors, TheOtherOneStaysLentWhicheverIsReturnedFirst) {
    for (const bool sync_first : {true, false}) {
        const int sync_fd = dup(sync_pair[0]);
        const int async_fd = dup(async_pair[0]);
        const std::uint32_t generation = scc::begin_generation();
        ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_fd, generation));
        ASSERT_TRUE(scc::install_descriptor(channel::async, async_fd, generation));
        auto sync = std::make_unique<borrowed_descriptor>(channel::sync);
        auto async = std::make_unique<borrowed_descriptor>(channel::async);
        (sync_first ? sync : async).reset();
        EXPECT_EQ(_scc_lib_client_close(), 0);
        EXPECT_EQ(is_open(sync_fd), !sync_first);
        EXPECT_EQ(is_open(async_fd), sync_first);
        sync.reset();
        async.reset();
        EXPECT_FALSE(is_open(sync_fd));
        EXPECT_FALSE(is_open(async_fd));
    }
    close(sync_pair[0]);
    close(async_pair[0]);
}

// The place of the loan whose borrower closed it comes before that of one that lasts.
TEST_F(Descriptors, ANumberThatIsUsedAgainIsNotClosedByItsNextBorrower) {
    install(scc::begin_generation());
    auto sync = std::make_unique<borrowed_descriptor>(channel::sync);
    const borrowed_descriptor async(channel::async);
    EXPECT_EQ(_scc_lib_client_close(), 0);
    sync.reset();
    ASSERT_FALSE(is_open(sync_pair[0]));
    ASSERT_EQ(dup2(sync_pair[1], sync_pair[0]), sync_pair[0]);
    ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_pair[0], scc::begin_generation()));
    EXPECT_EQ(borrowed_descriptor(channel::sync).fd(), sync_pair[0]);
    EXPECT_TRUE(is_open(sync_pair[0]));
}

// Each stays lent while its connection has ended.
TEST_F(Descriptors, ThirtyTwoAreLentAtOnceAndTheNextWaitsForOneOfThem) {
    const borrowed_descriptor none(channel::sync);  // takes no place
    EXPECT_EQ(none.fd(), -1);
    std::vector<std::unique_ptr<borrowed_descriptor>> lent;
    for (int i = 0; i < 32; ++i) {
        const int fd = dup(sync_pair[0]);
        ASSERT_TRUE(scc::install_descriptor(channel::sync, fd, scc::begin_generation()));
        lent.push_back(std::make_unique<borrowed_descriptor>(channel::sync));
        EXPECT_EQ(lent.back()->fd(), fd);
        EXPECT_EQ(_scc_lib_client_close(), 0);
    }
    ASSERT_TRUE(scc::install_descriptor(channel::sync, sync_pair[0], scc::begin_generation()));
    EXPECT_EQ(borrowed_descriptor(channel::sync).fd(), -1);
    lent.pop_back();
    EXPECT_EQ(borrowed_descriptor(channel::sync).fd(), sync_pair[0]);
    close(async_pair[0]);
}

TEST_F(Descriptors, AStatusWithoutAHandlerIsNothing) {
    _scc_lib_svr_status_notify(1);
    g_scc_client_cb.handlers.server_status = test::on_status;
    _scc_lib_svr_status_notify(0);
    EXPECT_EQ(test::statuses().wait(), 0U);
    close(sync_pair[0]);
    close(async_pair[0]);
}

// ---- what keeps another start away ----------------------------------------------------------------------

class Starts : public Descriptors {
  protected:
    Starts() {
        scc::give_start_up(scc::begin_generation());
        EXPECT_FALSE(scc::is_started(scc::start_kind::thread));
    }
    ~Starts() override {
        close(sync_pair[0]);
        close(async_pair[0]);
    }
};

TEST_F(Starts, AnUnregistrationUntilItHasEnded) {
    _scc_client_state_set(scc::state_registered);
    std::uint32_t app_id = 0;
    ASSERT_TRUE(scc::begin_unregistration(app_id));
    _scc_client_state_set(scc::state_idle);
    EXPECT_TRUE(scc::is_started(scc::start_kind::thread));
    scc::end_unregistration();
    EXPECT_FALSE(scc::is_started(scc::start_kind::thread));
}

TEST_F(Starts, AConnectionInWhateverState) {
    g_scc_client_cb.sync_fd = sync_pair[0];
    EXPECT_FALSE(scc::is_started(scc::start_kind::thread));
    g_scc_client_cb.async_fd = async_pair[0];
    EXPECT_TRUE(scc::is_started(scc::start_kind::thread));
    EXPECT_TRUE(scc::is_started(scc::start_kind::agent));
}

TEST_F(Starts, AStartEndsWhatAnAttemptBeforeItHasOpened) {
    const std::uint32_t before = scc::connection_epoch();
    g_scc_client_cb.sync_fd = sync_pair[0];
    std::uint32_t generation = 0;
    ASSERT_TRUE(scc::claim_start(scc::start_kind::thread, generation));
    EXPECT_TRUE(scc::is_current(generation));
    EXPECT_NE(scc::connection_epoch(), before);
    EXPECT_EQ(g_scc_client_cb.sync_fd.load(), -1);
    char byte = 0;
    EXPECT_EQ(recv(sync_pair[1], &byte, 1, MSG_DONTWAIT), 0);
    sync_pair[0] = -1;
}

// ---- what is done to a connection by its epoch ----------------------------------------------------------

class ByEpoch : public Descriptors {
  protected:
    ByEpoch() {
        install(scc::begin_generation());
        _scc_client_state_set(scc::state_registered);
        scc_lib_rereg = 0;
    }

    // Whether the other end of a socket reads its end, without waiting for it.
    static bool has_ended(int peer) {
        char byte = 0;
        return recv(peer, &byte, 1, MSG_DONTWAIT) == 0;
    }
    bool both_ended() const { return has_ended(sync_pair[1]) && has_ended(async_pair[1]); }
    bool one_ended() const { return has_ended(sync_pair[1]) || has_ended(async_pair[1]); }

    const std::uint32_t epoch = scc::connection_epoch();
};

TEST_F(ByEpoch, ABrokenConnectionIsShutDownOnlyWhileItIsTheRegisteredOne) {
    scc::report_broken(epoch + 1);
    EXPECT_FALSE(one_ended());
    _scc_client_state_set(scc::state_registering);
    scc::report_broken(epoch);
    EXPECT_FALSE(one_ended());
    EXPECT_EQ(scc_lib_rereg.load(), 0);
    _scc_client_state_set(scc::state_registered);
    scc::report_broken(epoch);
    EXPECT_TRUE(both_ended());
    EXPECT_EQ(scc_lib_rereg.load(), 1);
}

TEST_F(ByEpoch, AShutDownConnectionIsToldFromAnother) {
    scc::shut_down_connection(epoch + 1);
    EXPECT_FALSE(one_ended());
    EXPECT_FALSE(scc::is_shut_down(epoch + 1));
    scc::shut_down_connection(epoch);
    EXPECT_TRUE(both_ended());
    EXPECT_TRUE(scc::is_shut_down(epoch));
    EXPECT_FALSE(scc::is_shut_down(epoch + 1));
}

TEST_F(ByEpoch, ADescriptorOfZeroIsNotShutDownAndAnyGreaterOneIs) {
    const int output = dup(1);  // where the test tells its result
    ASSERT_EQ(dup2(sync_pair[0], 0), 0);
    ASSERT_EQ(dup2(async_pair[0], 1), 1);
    g_scc_client_cb.sync_fd = 0;
    g_scc_client_cb.async_fd = 1;
    scc::shut_down_connection(epoch);
    ASSERT_EQ(dup2(output, 1), 1);
    EXPECT_FALSE(has_ended(sync_pair[1]));
    EXPECT_TRUE(has_ended(async_pair[1]));
}

TEST_F(ByEpoch, ADescriptorOfOneIsClosedLikeAnyOther) {
    const int output = dup(1);  // where the test tells its result
    ASSERT_EQ(dup2(async_pair[0], 1), 1);
    close(async_pair[0]);
    g_scc_client_cb.async_fd = 1;
    const int closed = _scc_lib_client_close();
    const bool is_gone = !is_open(1);
    ASSERT_EQ(dup2(output, 1), 1);
    EXPECT_EQ(closed, 0);
    EXPECT_TRUE(is_gone);
    EXPECT_TRUE(both_ended());
}

TEST_F(ByEpoch, AResetDropsEverythingAndLeavesState5) {
    EXPECT_TRUE(scc::reset_connection(scc::current_generation()));
    EXPECT_EQ(g_scc_client_cb.state.load(), 5U);
    EXPECT_TRUE(both_ended());
    EXPECT_EQ(scc_lib_rereg.load(), 1);
}

TEST_F(ByEpoch, TheStateGoesBackOnlyForTheSameEpochWithoutAnAppId) {
    g_scc_client_cb.app_id = 7;
    scc::set_idle_of(epoch);
    EXPECT_EQ(scc::client_state_now(), scc::state_registered);
    g_scc_client_cb.app_id = 0;
    scc::set_idle_of(epoch + 1);
    EXPECT_EQ(scc::client_state_now(), scc::state_registered);
    scc::set_idle_of(epoch);
    EXPECT_EQ(scc::client_state_now(), scc::state_idle);
}

}  // namespace
