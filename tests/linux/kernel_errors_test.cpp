// What is left in the kernel and in the tables when the kernel, or the way to it, fails. Faults are in the
// socket, or real.
#include <linux/capability.h>
#include <sys/syscall.h>

#include <tuple>

#include "faulty_socket.h"
#include "kernel_rules.h"

namespace scc::kernel {
namespace {

using namespace testing;

using rules_by_chain = std::map<std::string, chain_rules>;

// ACL 1 with ACE 10 on interface 1.
class bench_with_faults : public back_end_bench {
  public:
    explicit bench_with_faults(packet_filter& filter) : back_end_bench(map_text, &filter) {
        recover_nothing();
        EXPECT_EQ(create(1), 0u);
        EXPECT_EQ(add(1, "10 deny ip any any"), 0u);
        EXPECT_EQ(apply(1, 1), 0u);
    }
    u32 delete_ace(const std::string& text) {
        return result_of(
            [record = ace_of(text)](contents& held) { return held.acls.delete_ace(key_of(1), record); });
    }
    u32 unapply(u32 acl, u32 ifx) {
        return result_of(
            [record = application_of(acl, ifx)](contents& held) { return held.acls.unapply(record); });
    }
    // Returns when everything that was handed over is done.
    void settle() {
        EXPECT_EQ((**this).run(service::work_kind::query, [](contents&) { return 0u; }), 0u);
    }
};

const rules_by_chain rules_at_first = {{"acl-0-3-1.0", {"10 10"}}, {"in-1-d1", {"jump acl-0-3-1.0"}}};

// ---- every errno at every place ----

using place = std::tuple<u32, change_fault>;

class KernelFaults : public KernelBackEnd, public ::testing::WithParamInterface<place> {
  protected:
    // With the faults in place each operation fails, or is carried out although its answer was lost.
    void expect_agreement(bench_with_faults& bench, read_fault read) {
        SCOPED_TRACE(static_cast<int>(read));
        const auto [error, change] = GetParam();
        const bool succeeds = change == change_fault::carried_out_unheard && read == read_fault::none;
        const u32 result = succeeds ? 0 : error;
        plan_ = {change, read, error, {}};
        EXPECT_EQ(bench.add(1, "20 deny ip any any"), result);
        EXPECT_EQ(bench.apply(1, 2), result);
        EXPECT_EQ(bench.delete_ace("10 deny ip any any"), result);
        plan_ = {};
        (*bench).mend();
        bench.settle();
        const rules_by_chain rules_then = {
            {"acl-0-3-1.0", {"20 20"}}, {"in-1-d1", {"jump acl-0-3-1.0"}}, {"in-2-d2", {"jump acl-0-3-1.0"}}};
        EXPECT_EQ(rules_of_kernel(), succeeds ? rules_then : rules_at_first);
        expect_that_operations_work(bench, succeeds);
    }

    // Ends with the rules of the beginning.
    static void expect_that_operations_work(bench_with_faults& bench, bool succeeded) {
        EXPECT_EQ(bench.create(1), SCC_E_ACL_EXISTS);
        EXPECT_EQ(bench.unapply(1, 2), succeeded ? 0u : SCC_E_NOT_APPLIED);
        EXPECT_EQ(bench.delete_ace("20 deny ip any any"), succeeded ? 0u : SCC_E_NO_ACE);
        EXPECT_EQ(bench.add(1, "10 deny ip any any"), succeeded ? 0u : SCC_E_ACE_EXISTS);
        EXPECT_EQ(bench.add(1, "30 deny ip any any"), 0u);
        EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"], (chain_rules{"10 10", "30 30"}));
        EXPECT_EQ(bench.delete_ace("30 deny ip any any"), 0u);
        EXPECT_EQ(rules_of_kernel(), rules_at_first);
    }

    fault_plan plan_;
};

std::string name_of_place(const ::testing::TestParamInfo<place>& test) {
    constexpr const char* names[] = {"", "NotSent", "Refused", "RefusedFirst", "RefusedLast", "Unheard"};
    const auto [error, change] = test.param;
    return std::string(::strerrorname_np(static_cast<int>(error))) + names[static_cast<int>(change)];
}

INSTANTIATE_TEST_SUITE_P(
    Each, KernelFaults,
    ::testing::Combine(::testing::Values(EBUSY, ENOMEM, EPERM, ENOENT, EEXIST, EOPNOTSUPP, ENOBUFS),
                       ::testing::Values(change_fault::not_sent, change_fault::refused,
                                         change_fault::refused_first, change_fault::refused_last,
                                         change_fault::carried_out_unheard)),
    name_of_place);

TEST_P(KernelFaults, LeaveKernelAndTablesInAgreement) {
    const auto filter = packet_filter_on(faulty_socket::opener(plan_));
    bench_with_faults bench(*filter);
    for (const read_fault read : {read_fault::none, read_fault::refused, read_fault::ends_early,
                                  read_fault::breaks_off, read_fault::no_socket}) {
        expect_agreement(bench, read);
    }
}

TEST_P(KernelFaults, AtTheEndOfARecoveryAreMendedLater) {
    const auto filter = packet_filter_on(faulty_socket::opener(plan_));
    bench_with_faults bench(*filter);
    bench.change([](contents& held) {
        held.begin_recovery();
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("40 deny ip any any")), 0u);
        EXPECT_EQ(held.acls.apply(application_of(1, 1)), 0u);
    });
    const auto [error, change] = GetParam();
    plan_ = {change, read_fault::breaks_off, error, {}};
    bench.change([](contents& held) { held.end_recovery(); });
    plan_ = {};
    (*bench).mend();
    bench.settle();
    EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"], (chain_rules{"40 40"}));
    const u64 transactions = (*bench).transactions();
    (*bench).mend();
    bench.settle();
    EXPECT_EQ((*bench).transactions(), transactions);
}

// ---- what other programs do ----

class OtherPrograms : public KernelBackEnd, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Each, OtherPrograms,
                         ::testing::Values("nft flush ruleset", "nft delete table netdev scclib",
                                           "nft delete table inet scclib", "nft flush table netdev scclib",
                                           "nft flush chain netdev scclib acl-0-3-1.0",
                                           "nft flush chain netdev scclib in-1-d1",
                                           "nft add rule netdev scclib acl-0-3-1.0 drop",
                                           "nft insert rule netdev scclib in-1-d1 accept"));

TEST_P(OtherPrograms, ChangesOfTheirsAreUndoneByTheNextOperation) {
    fault_plan plan;
    const auto filter = packet_filter_on(faulty_socket::opener(plan));
    bench_with_faults bench(*filter);
    command(GetParam());
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), 0u);
    const rules_by_chain wanted = {{"acl-0-3-1.0", {"10 10", "20 20"}}, {"in-1-d1", {"jump acl-0-3-1.0"}}};
    EXPECT_EQ(rules_of_kernel(), wanted);
    EXPECT_EQ(output_of("nft list tables | sort"), "table inet scclib\ntable netdev scclib\n");
}

TEST_P(OtherPrograms, ChangesOfTheirsAreSeenJustBeforeATransaction) {
    fault_plan plan;
    const auto filter = packet_filter_on(faulty_socket::opener(plan));
    bench_with_faults bench(*filter);
    plan.before_change = [] { command(GetParam()); };
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), 0u);
    const rules_by_chain wanted = {{"acl-0-3-1.0", {"10 10", "20 20"}}, {"in-1-d1", {"jump acl-0-3-1.0"}}};
    EXPECT_EQ(rules_of_kernel(), wanted);
    EXPECT_TRUE(bench.log().empty()) << bench.log().front();
}

using KernelRefusals = KernelBackEnd;

TEST_F(KernelRefusals, ChangesOfOthersWithoutAPauseAreAnError) {
    fault_plan plan;
    const auto filter = packet_filter_on(faulty_socket::opener(plan));
    bench_with_faults bench(*filter);
    std::function<void()> again = [&] {
        command("nft add table inet other && nft delete table inet other");
        plan.before_change = again;
    };
    plan.before_change = again;
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), u32{ERESTART});
    EXPECT_EQ(bench.log().size(), 2u);  // of the batch, and of the operation alone
    EXPECT_EQ(rules_of_kernel(), rules_at_first);
    plan.before_change = nullptr;
    EXPECT_EQ(bench.add(1, "30 deny ip any any"), 0u);
    EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"], (chain_rules{"10 10", "30 30"}));
}

// Some kernels keep a chain for an interface that is missing.
TEST_F(KernelRefusals, AnInterfaceMayVanishJustBeforeATransaction) {
    fault_plan plan;
    const auto filter = packet_filter_on(faulty_socket::opener(plan));
    bench_with_faults bench(*filter);
    plan.before_change = [] { command("ip link del d2"); };
    EXPECT_EQ(bench.apply(1, 2), 0u);
    plan.before_change = [] { command("ip link del d1"); };
    EXPECT_EQ(bench.unapply(1, 1), 0u);
    EXPECT_EQ(bench.apply(1, 1), u32{EOPNOTSUPP});
    EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"], (chain_rules{"10 10"}));
    EXPECT_EQ(rules_of_kernel().count("in-1-d1"), 0u);
    command("ip link add d1 type bridge && ip link add d2 type bridge");
    (*bench).restore();
    bench.settle();
    EXPECT_EQ(rules_of_kernel(),
              (rules_by_chain{{"acl-0-3-1.0", {"10 10"}}, {"in-2-d2", {"jump acl-0-3-1.0"}}}));
}

// ---- what the kernel refuses itself ----

// Takes the right to configure the network from the thread that calls it, or gives it back.
void set_right(bool has) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
    ASSERT_EQ(::syscall(SYS_capget, &header, sets), 0);
    constexpr u32 right = CAP_TO_MASK(CAP_NET_ADMIN);
    sets[0].effective = has ? sets[0].effective | right : sets[0].effective & ~right;
    ASSERT_EQ(::syscall(SYS_capset, &header, sets), 0);
}

TEST_F(KernelRefusals, WithoutTheRightNothingChangesUntilItIsBack) {
    std::string problem;
    const auto filter = open_packet_filter(problem);
    ASSERT_NE(filter, nullptr) << problem;
    bench_with_faults bench(*filter);
    const auto set_in_thread = [&](bool has) {
        EXPECT_EQ((*bench).run(service::work_kind::query,
                               [has](contents&) {
                                   set_right(has);
                                   return 0u;
                               }),
                  0u);
    };
    set_in_thread(false);
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), u32{EPERM});
    EXPECT_EQ(bench.create(2), u32{EPERM});
    EXPECT_EQ(rules_of_kernel(), rules_at_first);
    set_in_thread(true);
    EXPECT_EQ(bench.add(1, "30 deny ip any any"), 0u);
    EXPECT_EQ(bench.create(2), 0u);
    EXPECT_EQ(rules_of_kernel(), (rules_by_chain{{"acl-0-3-1.0", {"10 10", "30 30"}},
                                                 {"acl-0-3-2.0", {}},
                                                 {"in-1-d1", {"jump acl-0-3-1.0"}}}));
}

TEST_F(KernelRefusals, WithoutTheRightTheFilterDoesNotOpen) {
    set_right(false);
    std::string problem;
    EXPECT_EQ(open_packet_filter(problem), nullptr);
    EXPECT_EQ(problem, "Operation not permitted");
}

TEST_F(KernelRefusals, ARuleThatIsRefusedTakesTheTransactionWithIt) {
    std::string problem;
    const auto filter = open_packet_filter(problem);
    ASSERT_NE(filter, nullptr) << problem;
    batch changes;
    changes.add_table(family::netdev);
    changes.add_chain({family::netdev, "there"}, std::nullopt);
    changes.add_counter("there");
    changes.add_rule({family::netdev, "there"}, 0, "first", expressions().drop());
    changes.add_rule({family::netdev, "nowhere"}, 0, "second", expressions().drop());
    std::vector<u64> handles;
    std::string complaint;
    EXPECT_EQ(filter->run(changes, handles, complaint), u32{ENOENT});
    EXPECT_EQ(complaint, "rule");
    EXPECT_EQ(output_of("nft list ruleset"), "");
}

}  // namespace
}  // namespace scc::kernel
