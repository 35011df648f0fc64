// The back end on the kernel of a namespace.
#include "kernel_rules.h"

namespace scc::kernel {
namespace {

using namespace testing;

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
    u32 read_tables(held_tables& tables) override {
        return read_error != 0 ? read_error : real_->read_tables(tables);
    }
    u32 read_rules(const chain_name& chain, std::vector<kernel_rule>& rules) override {
        return real_->read_rules(chain, rules);
    }
    u32 read_counters(std::vector<counted>& counters) override { return real_->read_counters(counters); }
    u32 read_counter(const std::string& name, bool reset, u64& packets) override {
        return real_->read_counter(name, reset, packets);
    }

    unsigned runs = 0;
    u32 read_error = 0;

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

TEST_F(KernelBackEnd, OperationsThatArriveTogetherShareATransaction) {
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

TEST_F(KernelBackEnd, ChangesWaitForEachOtherUntilTheyAreMany) {
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), {}, endless_pause);
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

TEST_F(KernelBackEnd, AQueryEndsTheWaitOfTheChangesBeforeIt) {
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), {}, endless_pause);
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

TEST_F(KernelBackEnd, StopsWhileChangesWait) {
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get(), {}, endless_pause);
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    std::future<u32> added = submit_ace(bench, 10);
    (*bench).stop();
    EXPECT_EQ(added.get(), u32{ECANCELED});
}

TEST_F(KernelBackEnd, WhatTheKernelCannotDoIsRefusedAndTold) {
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

class KernelErrors : public KernelBackEnd, public ::testing::WithParamInterface<u32> {};

INSTANTIATE_TEST_SUITE_P(Each, KernelErrors,
                         ::testing::Values(EBUSY, ENOMEM, EPERM, ENOENT, EOPNOTSUPP, ENOBUFS));

TEST_P(KernelErrors, LeaveKernelAndTablesInAgreement) {
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

TEST_F(KernelBackEnd, AnErrorThatPassesIsNotNoticed) {
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get());
    bench.recover_nothing();
    filter->fail(EBUSY, 1);
    EXPECT_EQ(bench.create(1), 0u);
    EXPECT_EQ(rules_of_kernel().count("acl-0-3-1.0"), 1u);
}

TEST_F(KernelBackEnd, WhatFailedForAnOperationThatIsRefusedIsTriedAgain) {
    const auto filter = open_failing();
    back_end_bench bench(map_text, filter.get());
    bench.recover_nothing();
    EXPECT_EQ(bench.create(1), 0u);
    // Both operations together, and the first of them alone, each twice.
    filter->fail(EBUSY, 4);
    std::vector<std::future<u32>> results;
    std::promise<void> begun;
    std::promise<void> gate;
    const auto submit = [&](service::work_kind kind, service::back_end::table_work work) {
        const auto promise = std::make_shared<std::promise<u32>>();
        results.push_back(promise->get_future());
        (*bench).submit(kind, std::move(work), [promise](u32 result) { promise->set_value(result); });
    };
    submit(service::work_kind::query, [&](contents&) {
        begun.set_value();
        gate.get_future().wait();
        return 0u;
    });
    begun.get_future().wait();
    submit(service::work_kind::change, [](contents& held) { return held.acls.remove(key_of(1)); });
    submit(service::work_kind::change,
           [](contents& held) { return held.acls.add_ace(key_of(1), ace_of("10 deny ip any any")); });
    gate.set_value();
    EXPECT_EQ(results[1].get(), u32{EBUSY});
    EXPECT_EQ(results[2].get(), 0u);
    EXPECT_EQ(rules_of_kernel(), (std::map<std::string, chain_rules>{{"acl-0-3-1.0", {"10 10"}}}));
}

TEST_F(KernelBackEnd, NothingIsCarriedOutUnlessItHasBegun) {
    const auto filter = open_failing();
    service::forwarding_table table;
    kernel_back_end idle(table, interface_map(), *filter, [](const std::string&) {});
    const auto expect_cancelled = [&idle] {
        EXPECT_EQ(idle.run(service::work_kind::change, [](contents&) { return 0u; }), u32{ECANCELED});
        u32 submitted = 0;
        idle.submit(
            service::work_kind::query, [](contents&) { return 0u; },
            [&submitted](u32 result) { submitted = result; });
        EXPECT_EQ(submitted, u32{ECANCELED});
    };
    expect_cancelled();
    filter->read_error = EPERM;
    EXPECT_EQ(idle.start(), u32{EPERM});
    expect_cancelled();
    filter->read_error = 0;
    EXPECT_EQ(idle.start(), 0u);
    EXPECT_EQ(idle.run(service::work_kind::query, [](contents&) { return 5u; }), 5u);
    idle.stop();
    expect_cancelled();
}

TEST_F(KernelBackEnd, TablesThatSomebodyElseRemovedComeBack) {
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

TEST_F(KernelBackEnd, ARecoveryThatBringsTheSameChangesNothing) {
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

TEST_F(KernelBackEnd, ANewProcessAdoptsWhatIsRightAndRemovesTheRest) {
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
    const auto promise = std::make_shared<std::promise<u32>>();
    std::future<u32> answer = promise->get_future();
    (*second).submit(
        service::work_kind::change,
        [](contents& held) {
            EXPECT_EQ(held.acls.create(key_of(1)), 0u);
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("10 permit tcp any any")), 0u);
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("20 deny ip 11.0.0.0/8 any id 7")), 0u);
            return held.acls.apply(application_of(1, 1));
        },
        [promise](u32 result) { promise->set_value(result); });
    // A query is answered after the operations that came before it.
    EXPECT_EQ((*second).run(service::work_kind::query, [](contents&) { return 0u; }), 0u);
    EXPECT_EQ((*second).transactions(), 0u);
    EXPECT_EQ(answer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
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

TEST_F(KernelBackEnd, OnlyPortSecurityTellsOfStrangers) {
    NEED_THE_PACKET_LOG();
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

TEST_F(KernelBackEnd, RouterAclsApplyWhileTheyAreOpen) {
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

TEST_F(KernelBackEnd, AnExceptionPortIsLeftOutOfAclsOfAllInterfaces) {
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

TEST_F(KernelBackEnd, CpuProtectionLimitsARate) {
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

TEST_F(KernelBackEnd, AnInterfaceThatComesBackGetsItsRulesAgain) {
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

TEST_F(KernelBackEnd, AChangeInALongListChangesOneRule) {
    back_end_bench bench(map_text, nullptr, {3, 16});
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

TEST_F(KernelBackEnd, ANewProcessKnowsAListInManyChainsAgain) {
    const auto fill = [](contents& held) {
        EXPECT_EQ(held.acls.create(key_of(1)), 0u);
        for (u32 sn = 1; sn <= 20; ++sn) {
            EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of(std::to_string(sn) + " deny ip any any")), 0u);
        }
    };
    back_end_bench first(map_text, nullptr, {3, 16});
    first.recover_nothing();
    first.change(fill);
    first.kill();
    const std::string before = output_of("nft -a list ruleset");
    back_end_bench second(map_text, nullptr, {3, 16});
    second.change([](contents& held) { held.begin_recovery(); });
    second.change(fill);
    second.change([](contents& held) { held.end_recovery(); });
    EXPECT_EQ((*second).transactions(), 0u);
    EXPECT_EQ(output_of("nft -a list ruleset"), before);
    EXPECT_EQ(second.remove(1), 0u);
    EXPECT_TRUE(rules_of_kernel().empty());
}

// ---- ACEs that share maps ----

// Twenty ACEs of one shape, and one that matches the rest.
void fill_maps(contents& held) {
    EXPECT_EQ(held.acls.create(key_of(1)), 0u);
    for (u32 sn = 1; sn <= 20; ++sn) {
        const std::string number = std::to_string(sn);
        const std::string verdict = sn % 2 == 0 ? " deny" : " permit";
        EXPECT_EQ(held.acls.add_ace(key_of(1),
                                    ace_of(number + verdict + " tcp host 10.0.0." + number + " any eq 80")),
                  0u);
    }
    EXPECT_EQ(held.acls.add_ace(key_of(1), ace_of("100 deny ip any any")), 0u);
    EXPECT_EQ(held.acls.apply(application_of(1, 1)), 0u);
}

// A new process's recovery of the same.
void recover_maps(back_end_bench& bench) {
    bench.change([](contents& held) { held.begin_recovery(); });
    bench.change(fill_maps);
    bench.change([](contents& held) { held.end_recovery(); });
}

std::string map_of_kernel(const std::string& name) {
    return output_of("nft -s list map netdev scclib " + name);
}

TEST_F(KernelBackEnd, ANewProcessKnowsTheMapsOfARunAgain) {
    back_end_bench first(map_text);
    first.recover_nothing();
    first.change(fill_maps);
    EXPECT_NE(map_of_kernel("acl-0-3-1.0-deny-1").find("10.0.0.2 . tcp . 80 "), std::string::npos);
    first.kill();
    const auto rules = rules_of_kernel();
    const std::string before = output_of("nft -a list chain netdev scclib acl-0-3-1.0");
    back_end_bench second(map_text);
    recover_maps(second);
    EXPECT_EQ((*second).transactions(), 0u);
    // A new ACE joins the run.
    EXPECT_EQ(second.add(1, "50 deny tcp host 10.0.0.50 any eq 80"), 0u);
    EXPECT_EQ(output_of("nft -a list chain netdev scclib acl-0-3-1.0"), before);
    EXPECT_NE(map_of_kernel("acl-0-3-1.0-deny-1").find("10.0.0.50 . tcp . 80 "), std::string::npos);
    auto wanted = rules;
    wanted["acl-0-3-1.0"].insert(wanted["acl-0-3-1.0"].end() - 1, "50 50");
    EXPECT_EQ(rules_of_kernel(), wanted);
}

TEST_F(KernelBackEnd, AnElementThatSomebodyElseRemovedComesBack) {
    back_end_bench first(map_text);
    first.recover_nothing();
    first.change(fill_maps);
    first.kill();
    const auto rules = rules_of_kernel();
    command("nft delete element netdev scclib acl-0-3-1.0-deny-1 '{ 10.0.0.4 . tcp . 80 }'");
    EXPECT_NE(rules_of_kernel(), rules);
    back_end_bench second(map_text);
    recover_maps(second);
    EXPECT_EQ((*second).transactions(), 1u);
    EXPECT_EQ(rules_of_kernel(), rules);
}

TEST_F(KernelBackEnd, AMapThatSomebodyElseChangedIsReplaced) {
    back_end_bench first(map_text);
    first.recover_nothing();
    first.change(fill_maps);
    first.kill();
    const auto rules = rules_of_kernel();
    command("nft add element netdev scclib acl-0-3-1.0-deny-1 '{ 10.0.0.99 . tcp . 80 : \"0-3-1.0\" }'");
    command("nft add map netdev scclib stray '{ type ipv4_addr : counter; }'");
    back_end_bench second(map_text);
    recover_maps(second);
    EXPECT_EQ((*second).transactions(), 1u);
    EXPECT_EQ(rules_of_kernel(), rules);
    EXPECT_EQ(output_of("nft list table netdev scclib").find("10.0.0.99"), std::string::npos);
}

}  // namespace
}  // namespace scc::kernel
