// The back end on the kernel of a namespace. What the kernel holds is read with nft(8), not with the code
// under test.
#include <algorithm>
#include <random>
#include <sstream>

#include "kernel_support.h"

namespace scc::kernel {
namespace {

using namespace testing;

constexpr const char* map_text = "ifx 1 d1\nifx 2 d2\nifx 3 d3\nifx 9 d9 router\ncpp 1 5 icmp any any\n";

void make_interfaces() {
    for (const char* name : {"d1", "d2", "d3", "d9"}) {
        command(std::string("ip link add ") + name + " type bridge && ip link set " + name + " up");
    }
}

// "sn id" of each ACE in a chain; for other rules their text.
using chain_rules = std::vector<std::string>;

// Puts the chains of each long list together, along the rules that lead from one to the next.
void join_lists(std::map<std::string, chain_rules>& chains) {
    const std::string leads = "goto ";
    for (auto& [name, rules] : chains) {
        while (name.find('/') == std::string::npos && !rules.empty() && rules.back().starts_with(leads)) {
            const auto next = chains.find(rules.back().substr(leads.size()));
            ASSERT_NE(next, chains.end()) << rules.back();
            rules.pop_back();
            rules.insert(rules.end(), next->second.begin(), next->second.end());
            next->second = {"joined"};
        }
    }
    std::erase_if(chains, [](const auto& chain) { return chain.second == chain_rules{"joined"}; });
}

std::map<std::string, chain_rules> rules_of_kernel() {
    std::map<std::string, chain_rules> chains;
    std::istringstream lines(output_of("nft -s list table netdev scclib"));
    std::string chain;
    for (std::string line; std::getline(lines, line);) {
        char name[64] = {};
        unsigned sn = 0;
        unsigned id = 0;
        unsigned part = 0;
        const std::size_t comment = line.find("comment \"");
        if (std::sscanf(line.c_str(), " chain %63s {", name) == 1) {
            chain = name;
            chains[chain];
        } else if (comment != std::string::npos &&
                   std::sscanf(line.c_str() + comment, "comment \"a2 %u %u %*u %*s %u/", &sn, &id, &part) ==
                       3) {
            if (part == 1) {
                chains[chain].push_back(std::to_string(sn) + " " + std::to_string(id));
            }
        } else if (comment != std::string::npos || line.find("jump") != std::string::npos) {
            const std::size_t begin = line.find_first_not_of('\t');
            chains[chain].push_back(line.substr(begin, comment - 1 - begin));
        }
    }
    join_lists(chains);
    return chains;
}

// The kernel, whose transactions can be made to fail.
class failing_filter : public packet_filter {
  public:
    explicit failing_filter(std::unique_ptr<packet_filter> real) : real_(std::move(real)) {}

    void fail(u32 error, unsigned times) {
        error_ = error;
        times_ = times;
    }
    u32 run(const batch& changes, std::vector<u64>& handles, std::string& text) override {
        ++runs;
        if (times_ > 0) {
            --times_;
            text = "made to fail";
            return error_;
        }
        return real_->run(changes, handles, text);
    }
    u32 read_tables(held_tables& tables) override { return real_->read_tables(tables); }
    u32 read_rules(const chain_name& chain, std::vector<kernel_rule>& rules) override {
        return real_->read_rules(chain, rules);
    }
    u32 read_counters(std::vector<counted>& counters) override { return real_->read_counters(counters); }
    u32 read_counter(const std::string& name, bool reset, u64& packets) override {
        return real_->read_counter(name, reset, packets);
    }

    unsigned runs = 0;

  private:
    std::unique_ptr<packet_filter> real_;
    u32 error_ = 0;
    unsigned times_ = 0;
};

std::unique_ptr<failing_filter> open_failing() {
    std::string problem;
    auto real = open_packet_filter(problem);
    EXPECT_NE(real, nullptr) << problem;
    return std::make_unique<failing_filter>(std::move(real));
}

TEST(KernelBackEnd, OperationsThatArriveTogetherShareATransaction) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get());
    bench.recover_nothing();
    filter->runs = 0;
    std::promise<void> begun;
    std::promise<void> gate;
    (*bench).submit(
        service::work_kind::query,
        [&](contents&) {
            begun.set_value();
            gate.get_future().wait();
            return 0u;
        },
        [](u32) {});
    // What is submitted earlier may be taken together with the query.
    begun.get_future().wait();
    std::vector<std::future<u32>> results;
    const auto submit = [&](service::back_end::table_work work) {
        const auto promise = std::make_shared<std::promise<u32>>();
        results.push_back(promise->get_future());
        (*bench).submit(service::work_kind::change, std::move(work),
                        [promise](u32 result) { promise->set_value(result); });
    };
    submit([](contents& held) { return held.acls.create(key_of(1)); });
    for (u32 sn = 1; sn <= 50; ++sn) {
        submit([sn](contents& held) {
            return held.acls.add_ace(key_of(1), ace_of(std::to_string(sn) + " deny ip any any"));
        });
    }
    submit([](contents& held) { return held.acls.add_ace(key_of(1), ace_of("7 deny ip any any")); });
    submit([](contents& held) { return held.acls.apply(application_of(1, 1)); });
    gate.set_value();
    for (std::size_t index = 0; index < results.size(); ++index) {
        EXPECT_EQ(results[index].get(), index == 51 ? SCC_E_ACE_EXISTS : 0u) << index;
    }
    EXPECT_EQ(filter->runs, 1u);
    EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"].size(), 50u);
    EXPECT_EQ(rules_of_kernel()["in-1-d1"], (chain_rules{"jump acl-0-3-1.0"}));
}

// A pause that does not end by itself after the first transaction.
constexpr pace_limits endless_pause{1'000'000'000, std::chrono::nanoseconds(0), std::chrono::hours(1), 32,
                                    std::chrono::nanoseconds(0)};

std::future<u32> submit_ace(back_end_bench& bench, u32 sn) {
    const auto promise = std::make_shared<std::promise<u32>>();
    (*bench).submit(
        service::work_kind::change,
        [sn](contents& held) {
            return held.acls.add_ace(key_of(1), ace_of(std::to_string(sn) + " deny ip any any"));
        },
        [promise](u32 result) { promise->set_value(result); });
    return promise->get_future();
}

TEST(KernelBackEnd, ChangesWaitForEachOtherUntilTheyAreMany) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), list_chain_default, endless_pause);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    filter->runs = 0;
    std::vector<std::future<u32>> results;
    for (u32 sn = 1; sn <= 32; ++sn) {
        results.push_back(submit_ace(bench, sn));
    }
    for (std::future<u32>& result : results) {
        EXPECT_EQ(result.get(), 0u);
    }
    EXPECT_EQ(filter->runs, 1u);
}

TEST(KernelBackEnd, AQueryEndsTheWaitOfTheChangesBeforeIt) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), list_chain_default, endless_pause);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    std::future<u32> added = submit_ace(bench, 10);
    const auto asked = std::make_shared<std::promise<std::size_t>>();
    (*bench).submit(
        service::work_kind::query,
        [asked](contents& held) {
            asked->set_value(held.acls.acls().at(service::acl_name(key_of(1))).aces.size());
            return 0u;
        },
        [](u32) {});
    EXPECT_EQ(asked->get_future().get(), 1u);
    EXPECT_EQ(added.get(), 0u);
}

TEST(KernelBackEnd, StopsWhileChangesWait) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), list_chain_default, endless_pause);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    std::future<u32> added = submit_ace(bench, 10);
    (*bench).stop();
    EXPECT_EQ(added.get(), u32{ECANCELED});
}

TEST(KernelBackEnd, WhatTheKernelCannotDoIsRefusedAndTold) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.add(1, "10 deny ip any any time-range mon 08:00-17:00"), 95u);
    EXPECT_EQ(bench.add(1, "10 deny ip any any log"), 95u);
    EXPECT_EQ(bench.result_of([](contents& held) { return held.acls.add_ace(key_of(1), scc_ace_record{}); }),
              95u);
    EXPECT_EQ(bench.apply(1, 4), 95u);
    EXPECT_EQ(bench.result_of([](contents& held) {
        held.nac.set_app({1, 0, 16}, 1);
        return 0u;
    }),
              95u);
    EXPECT_EQ(bench.result_of([](contents& held) {
        held.nac.set_l4port(80, true);
        return 0u;
    }),
              95u);
    EXPECT_EQ(bench.result_of([](contents& held) {
        held.nac.set_cpu_protection(2, true);
        return 0u;
    }),
              95u);
    EXPECT_EQ(bench.log().size(), 7u);
    EXPECT_EQ(bench.add(1, "10 deny ip any any"), 0u);
    EXPECT_EQ(rules_of_kernel(), (std::map<std::string, chain_rules>{{"acl-0-3-1.0", {"10 10"}}}));
}

class KernelErrors : public ::testing::TestWithParam<u32> {};

INSTANTIATE_TEST_SUITE_P(Each, KernelErrors,
                         ::testing::Values(EBUSY, ENOMEM, EPERM, ENOENT, EOPNOTSUPP, ENOBUFS));

TEST_P(KernelErrors, LeaveKernelAndTablesInAgreement) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get());
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.add(1, "10 deny ip any any"), 0u);
    EXPECT_EQ(bench.apply(1, 1), 0u);
    const auto before = rules_of_kernel();
    constexpr unsigned always = 1000;
    filter->fail(GetParam(), always);
    EXPECT_EQ(bench.create(2), GetParam());
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), GetParam());
    EXPECT_EQ(bench.apply(1, 2), GetParam());
    EXPECT_EQ(bench.result_of([](contents& held) { return held.acls.resequence(key_of(1), 100, 10); }),
              GetParam());
    EXPECT_EQ(bench.result_of([](contents& held) {
        return held.acls.delete_ace(key_of(1), ace_of("10 deny ip any any"));
    }),
              GetParam());
    EXPECT_EQ(bench.result_of([](contents& held) {
        held.nac.set_cpu_protection(1, true);
        return 0u;
    }),
              GetParam());
    EXPECT_EQ(rules_of_kernel(), before);
    filter->fail(0, 0);
    EXPECT_EQ(bench.create(1), SCC_E_ACL_EXISTS);
    EXPECT_EQ(bench.create(2), 0u);
    EXPECT_EQ(bench.add(1, "10 deny ip any any"), SCC_E_ACE_EXISTS);
    EXPECT_EQ(bench.add(1, "20 deny ip any any"), 0u);
    EXPECT_EQ(bench.apply(1, 2), 0u);
    EXPECT_EQ(rules_of_kernel(), (std::map<std::string, chain_rules>{{"acl-0-3-1.0", {"10 10", "20 20"}},
                                                                     {"acl-0-3-2.0", {}},
                                                                     {"in-1-d1", {"jump acl-0-3-1.0"}},
                                                                     {"in-2-d2", {"jump acl-0-3-1.0"}}}));
}

TEST(KernelBackEnd, AnErrorThatPassesIsNotNoticed) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get());
    bench.recover_nothing();
    filter->fail(EBUSY, 1);
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(rules_of_kernel().count("acl-0-3-1.0"), 1u);
}

TEST(KernelBackEnd, TablesThatSomebodyElseRemovedComeBack) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.apply(1, 1), 0u);
    command("nft flush ruleset");
    EXPECT_EQ(bench.add(1, "10 deny ip any any"), 0u);
    EXPECT_EQ(rules_of_kernel(), (std::map<std::string, chain_rules>{{"acl-0-3-1.0", {"10 10"}},
                                                                     {"in-1-d1", {"jump acl-0-3-1.0"}}}));
}

// Creates ACL 1 with two ACEs on interface 1.
void load(back_end_bench& bench) {
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.add(1, "10 permit tcp any any"), 0u);
    EXPECT_EQ(bench.add(1, "20 deny ip 10.0.0.0/8 any id 7"), 0u);
    EXPECT_EQ(bench.apply(1, 1), 0u);
}

TEST(KernelBackEnd, ARecoveryThatBringsTheSameChangesNothing) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    load(bench);
    const u64 transactions = (*bench).transactions();
    const std::string before = output_of("nft -a list ruleset");
    bench.change([](contents& held) {
        held.begin_recovery();
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("10 permit tcp any any")), 0u);
        EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("20 deny ip 10.0.0.0/8 any id 7")), 0u);
        EXPECT_EQ(held.acls.apply(application_of(1, 1)), 0u);
    });
    bench.change([](contents& held) { held.end_recovery(); });
    EXPECT_EQ((*bench).transactions(), transactions);
    EXPECT_EQ(output_of("nft -a list ruleset"), before);
}

TEST(KernelBackEnd, ANewProcessAdoptsWhatIsRightAndRemovesTheRest) {
    NEED_A_NAMESPACE();
    make_interfaces();
    command("nft add table inet other");
    back_end_bench first(map_text);
    first.recover_nothing();
    load(first);
    EXPECT_EQ(first.create(2), 0u);
    first.kill();
    const std::string right = output_of("nft -a list chain netdev scclib in-1-d1");
    command("nft add rule netdev scclib acl-0-3-1.0 drop");
    command("nft add chain netdev scclib stray && nft add counter netdev scclib stray");
    back_end_bench second(map_text);
    EXPECT_EQ(rules_of_kernel().count("stray"), 1u);
    second.change([](contents& held) { held.begin_recovery(); });
    std::future<u32> answer;
    const auto promise = std::make_shared<std::promise<u32>>();
    answer = promise->get_future();
    (*second).submit(
        service::work_kind::change,
        [](contents& held) {
            EXPECT_EQ(held.acls.create(key_of(1)), 0u);
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("10 permit tcp any any")), 0u);
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("20 deny ip 11.0.0.0/8 any id 7")), 0u);
            return held.acls.apply(application_of(1, 1));
        },
        [promise](u32 result) { promise->set_value(result); });
    EXPECT_EQ((*second).transactions(), 0u);
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
    second.change([](contents& held) { held.end_recovery(); });
    EXPECT_EQ(answer.get(), 0u);
    EXPECT_EQ((*second).transactions(), 1u);
    EXPECT_EQ(rules_of_kernel(), (std::map<std::string, chain_rules>{{"acl-0-3-1.0", {"10 10", "20 7"}},
                                                                     {"in-1-d1", {"jump acl-0-3-1.0"}}}));
    EXPECT_EQ(output_of("nft -a list chain netdev scclib in-1-d1"), right);
    EXPECT_NE(output_of("nft list chain netdev scclib acl-0-3-1.0").find("11.0.0.0/8"), std::string::npos);
    EXPECT_EQ(output_of("nft list counters table netdev scclib").find("stray"), std::string::npos);
    EXPECT_EQ(output_of("nft list tables"), "table inet other\ntable netdev scclib\ntable inet scclib\n");
}

TEST(KernelBackEnd, OnlyPortSecurityTellsOfStrangers) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    const auto rules_with_log = [] {
        const chain_rules rules = rules_of_kernel()["nac-1-0"];
        return std::ranges::count_if(rules, [](const std::string& rule) {
            return rule.starts_with("limit rate 100/second") &&
                   rule.find("log group 1484") != std::string::npos;
        });
    };
    bench.change([](contents& held) { held.nac.set_app({1, 0, 1}, 1); });
    EXPECT_EQ(rules_of_kernel()["nac-1-0"].size(), 2u);
    EXPECT_EQ(rules_with_log(), 0);
    bench.change([](contents& held) { held.nac.set_app({1, 0, 6}, 1); });
    EXPECT_EQ(rules_of_kernel()["nac-1-0"].size(), 3u);
    EXPECT_EQ(rules_with_log(), 1);
    bench.change([](contents& held) { held.nac.set_app({1, 0, 6}, 3); });
    EXPECT_EQ(rules_with_log(), 0);
}

TEST(KernelBackEnd, RouterAclsApplyWhileTheyAreOpen) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.apply(1, 9), 0u);
    EXPECT_EQ(rules_of_kernel().count("in-9-d9"), 0u);
    bench.change([](contents& held) { held.nac.set_router_acl(true); });
    EXPECT_EQ(rules_of_kernel().count("in-9-d9"), 1u);
    bench.change([](contents& held) { held.nac.set_router_acl(false); });
    EXPECT_EQ(rules_of_kernel().count("in-9-d9"), 0u);
}

TEST(KernelBackEnd, AnExceptionPortIsLeftOutOfAclsOfAllInterfaces) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    bench.change([](contents& held) { held.nac.set_egress_port(2, true); });
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(bench.apply(1, 0, 1), 0u);
    EXPECT_EQ(rules_of_kernel().count("out-1-d1"), 1u);
    EXPECT_EQ(rules_of_kernel().count("out-2-d2"), 0u);
    EXPECT_EQ(rules_of_kernel().count("out-3-d3"), 1u);
    EXPECT_EQ(bench.apply(1, 2, 1), 0u);
    EXPECT_EQ(rules_of_kernel().count("out-2-d2"), 1u);
}

TEST(KernelBackEnd, CpuProtectionLimitsARate) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    bench.change([](contents& held) { held.nac.set_cpu_protection(1, true); });
    const auto rules = [] { return output_of("nft list chain inet scclib cpu-limits"); };
    const std::string fresh = rules();
    EXPECT_NE(fresh.find("limit rate over 5/second"), std::string::npos) << fresh;
    const auto idle_rules = [](const std::string& text) {
        std::size_t count = 0;
        for (std::size_t at = text.find("counter packets 0 "); at != std::string::npos;
             at = text.find("counter packets 0 ", at + 1)) {
            ++count;
        }
        return count;
    };
    // One rule for ICMP in IPv4, which drops, and one for IPv6.
    EXPECT_EQ(idle_rules(fresh), 2u) << fresh;
    // On a machine that is slow enough, thirty packets stay below the rate.
    for (int burst = 0; burst < 100 && idle_rules(rules()) == 2; ++burst) {
        (void)std::system("ping -q -c 30 -i 0.002 -W 1 127.0.0.1 > /dev/null");
    }
    EXPECT_EQ(idle_rules(rules()), 1u) << rules();
    bench.change([](contents& held) { held.nac.set_cpu_protection(1, false); });
    EXPECT_EQ(output_of("nft list table inet scclib").find("limit"), std::string::npos);
}

TEST(KernelBackEnd, AnInterfaceThatComesBackGetsItsRulesAgain) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text);
    bench.recover_nothing();
    load(bench);
    command("ip link del d1");
    EXPECT_EQ(bench.add(1, "30 deny ip any any"), 0u);
    command("ip link add d1 type bridge");
    (*bench).restore();
    EXPECT_EQ(bench.create(2), 0u);
    EXPECT_EQ(rules_of_kernel()["in-1-d1"], (chain_rules{"jump acl-0-3-1.0"}));
}

// ---- random operations ----

// The obvious model: what the results are, and what the kernel holds.
struct model_acl {
    std::vector<std::pair<u32, u32>> aces;  // sequence number and id; in order
    std::vector<std::pair<u32, u32>> places;
};

class acl_model {
  public:
    u32 create(u32 acl) { return acls.try_emplace(acl).second ? 0 : SCC_E_ACL_EXISTS; }
    u32 remove(u32 acl) {
        if (!acls.contains(acl)) {
            return SCC_E_NO_ACL;
        }
        if (!acls[acl].places.empty()) {
            return SCC_E_STILL_APPLIED;
        }
        acls.erase(acl);
        return 0;
    }
    u32 add(u32 acl, u32 sn, u32 id) {
        if (!acls.contains(acl)) {
            return SCC_E_NO_ACL;
        }
        auto& aces = acls[acl].aces;
        if (std::find(aces.begin(), aces.end(), std::pair(sn, id)) != aces.end()) {
            return SCC_E_ACE_EXISTS;
        }
        const auto after = std::find_if(aces.begin(), aces.end(), [sn](auto& ace) { return ace.first > sn; });
        aces.insert(after, {sn, id});
        return 0;
    }
    u32 remove_ace(u32 acl, u32 sn, u32 id) {
        if (!acls.contains(acl)) {
            return SCC_E_NO_ACL;
        }
        return std::erase(acls[acl].aces, std::pair(sn, id)) != 0 ? 0 : SCC_E_NO_ACE;
    }
    u32 place(u32 acl, u32 ifx, u32 direction, bool set) {
        if (!acls.contains(acl)) {
            return SCC_E_NO_ACL;
        }
        auto& places = acls[acl].places;
        const bool is_there =
            std::find(places.begin(), places.end(), std::pair(ifx, direction)) != places.end();
        if (set == is_there) {
            return set ? SCC_E_APPLIED_ALREADY : SCC_E_NOT_APPLIED;
        }
        if (set) {
            places.emplace_back(ifx, direction);
        } else {
            std::erase(places, std::pair(ifx, direction));
        }
        return 0;
    }
    u32 resequence(u32 acl, u32 start, u32 step) {
        if (!acls.contains(acl)) {
            return SCC_E_NO_ACL;
        }
        u32 before = 0;
        u32 number = start - step;
        for (auto& ace : acls[acl].aces) {
            if (ace.first != before) {
                before = ace.first;
                number += step;
            }
            ace.first = number;
        }
        return 0;
    }
    void compare(const std::map<std::string, chain_rules>& kernel) const {
        std::size_t own_chains = 0;
        std::map<std::string, std::size_t> jumps;
        for (const auto& [acl, held] : acls) {
            chain_rules wanted;
            for (const auto& [sn, id] : held.aces) {
                wanted.push_back(std::to_string(sn) + " " + std::to_string(id));
            }
            for (const auto& [ifx, direction] : held.places) {
                const std::string name = std::to_string(ifx) + "-d" + std::to_string(ifx);
                ++jumps[(direction == 0 ? "in-" : "out-") + name];
            }
            chain_rules found = {"no chain"};
            for (const auto& [name, rules] : kernel) {
                if (name.starts_with("acl-0-3-" + std::to_string(acl) + ".")) {
                    found = rules;
                    ++own_chains;
                }
            }
            EXPECT_EQ(found, wanted) << "ACL " << acl;
        }
        EXPECT_EQ(own_chains, acls.size());
        for (const auto& [name, count] : jumps) {
            ASSERT_TRUE(kernel.contains(name)) << name;
            EXPECT_EQ(kernel.at(name).size(), count) << name;
        }
        EXPECT_EQ(kernel.size(), acls.size() + jumps.size());
    }

    std::map<u32, model_acl> acls;
};

void compare_with_model(int operations, std::size_t list_chain) {
    make_interfaces();
    back_end_bench bench(map_text, nullptr, list_chain);
    bench.recover_nothing();
    acl_model model;
    std::mt19937 random(20261122);
    const auto pick = [&](u32 count) { return static_cast<u32>(random() % count); };
    std::vector<std::pair<std::future<u32>, u32>> results;
    for (int operation = 0; operation < operations; ++operation) {
        const u32 acl = 1 + pick(6);
        const u32 sn = 1 + pick(20);
        const u32 id = 1 + pick(25);
        const u32 ifx = 1 + pick(3);
        const u32 direction = pick(2);
        const u32 kind = pick(20);
        service::back_end::table_work work;
        u32 wanted = 0;
        scc_ace_record ace = ace_of(std::to_string(sn) + " deny tcp any any eq " + std::to_string(id) +
                                    " id " + std::to_string(id));
        if (kind == 0) {
            work = [acl](contents& held) { return held.acls.create(key_of(acl)); };
            wanted = model.create(acl);
        } else if (kind == 1) {
            work = [acl](contents& held) { return held.acls.remove(key_of(acl)); };
            wanted = model.remove(acl);
        } else if (kind == 2) {
            work = [acl, sn, ifx](contents& held) { return held.acls.resequence(key_of(acl), sn, ifx); };
            wanted = model.resequence(acl, sn, ifx);
        } else if (kind < 6) {
            const bool set = kind < 4;
            work = [acl, ifx, direction, set](contents& held) {
                const scc_acl_apply_record record = application_of(acl, ifx, direction);
                return set ? held.acls.apply(record) : held.acls.unapply(record);
            };
            wanted = model.place(acl, ifx, direction, set);
        } else if (kind < 14) {
            work = [acl, ace](contents& held) { return held.acls.add_ace(key_of(acl), ace); };
            wanted = model.add(acl, sn, id);
        } else {
            // Mostly an ACE that is there.
            const auto known = model.acls.find(acl);
            if (known != model.acls.end() && !known->second.aces.empty() && kind < 19) {
                const auto& one = known->second.aces[pick(static_cast<u32>(known->second.aces.size()))];
                ace.sn = one.first;
                ace.ace_id = one.second;
            }
            work = [acl, ace](contents& held) { return held.acls.delete_ace(key_of(acl), ace); };
            wanted = model.remove_ace(acl, ace.sn, ace.ace_id);
        }
        const auto promise = std::make_shared<std::promise<u32>>();
        results.emplace_back(promise->get_future(), wanted);
        (*bench).submit(service::work_kind::change, work,
                        [promise](u32 result) { promise->set_value(result); });
        // Runs of one to forty operations meet the kernel together.
        if (pick(20) == 0 || results.size() == 40) {
            for (auto& [result, expected] : results) {
                ASSERT_EQ(result.get(), expected) << "before operation " << operation;
            }
            results.clear();
        }
        if (operation % 500 == 499) {
            for (auto& [result, expected] : results) {
                ASSERT_EQ(result.get(), expected) << "before operation " << operation;
            }
            results.clear();
            model.compare(rules_of_kernel());
        }
    }
    EXPECT_TRUE(bench.log().empty()) << bench.log().front();
}

TEST(KernelBackEnd, TheKernelIsLikeAModelAfterTenThousandOperations) {
    NEED_A_NAMESPACE();
    compare_with_model(10'000, list_chain_default);
}

TEST(KernelBackEnd, TheKernelIsLikeAModelWhenListsAreCutIntoChains) {
    NEED_A_NAMESPACE();
    compare_with_model(5'000, 3);
}

TEST(KernelBackEnd, AChangeInALongListChangesOneRule) {
    NEED_A_NAMESPACE();
    make_interfaces();
    back_end_bench bench(map_text, nullptr, 3);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    chain_rules wanted;
    for (u32 sn = 10; sn <= 100; sn += 10) {
        EXPECT_EQ(bench.add(1, std::to_string(sn) + " deny ip any any"), 0u);
        wanted.push_back(std::to_string(sn) + " " + std::to_string(sn));
    }
    const auto chain = [](const std::string& name) {
        return output_of("nft -a list chain netdev scclib " + name);
    };
    const std::vector<std::string> names = {"acl-0-3-1.0", "acl-0-3-1.0/02", "acl-0-3-1.0/03",
                                            "acl-0-3-1.0/04"};
    std::vector<std::string> before;
    for (const std::string& name : names) {
        before.push_back(chain(name));
    }
    // One goes, and the last one comes: what lies between stays.
    EXPECT_EQ(bench.result_of([](contents& held) {
        (void)held.acls.add_ace(key_of(1), ace_of("110 deny ip any any"));
        return held.acls.delete_ace(key_of(1), ace_of("20 deny ip any any"));
    }),
              0u);
    wanted.erase(wanted.begin() + 1);
    wanted.push_back("110 110");
    EXPECT_EQ(rules_of_kernel()["acl-0-3-1.0"], wanted);
    EXPECT_NE(chain(names[0]), before[0]);
    EXPECT_EQ(chain(names[1]), before[1]);
    EXPECT_EQ(chain(names[2]), before[2]);
    EXPECT_NE(chain(names[3]), before[3]);
}

TEST(KernelBackEnd, ANewProcessKnowsAListInManyChainsAgain) {
    NEED_A_NAMESPACE();
    make_interfaces();
    const auto fill = [](contents& held) {
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        for (u32 sn = 1; sn <= 20; ++sn) {
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of(std::to_string(sn) + " deny ip any any")), 0u);
        }
    };
    back_end_bench first(map_text, nullptr, 3);
    first.recover_nothing();
    first.change(fill);
    first.kill();
    const std::string before = output_of("nft -a list ruleset");
    back_end_bench second(map_text, nullptr, 3);
    second.change([](contents& held) { held.begin_recovery(); });
    second.change(fill);
    second.change([](contents& held) { held.end_recovery(); });
    EXPECT_EQ((*second).transactions(), 0u);
    EXPECT_EQ(output_of("nft -a list ruleset"), before);
    EXPECT_EQ(second.remove(1), 0u);
    EXPECT_TRUE(rules_of_kernel().empty());
}

}  // namespace
}  // namespace scc::kernel
