// Plans for the list of one ACL: what they send, and what is held after them.
#include "linux/list_planner.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <cstring>
#include <ostream>

#include "ace/ace_text.h"

namespace scc::kernel {
namespace {

struct sent_messages {
    int rules_added = 0;
    int rules_deleted = 0;
    int maps_added = 0;
    int maps_deleted = 0;
    int elements_added = 0;
    int elements_deleted = 0;
    bool operator==(const sent_messages&) const = default;

    friend std::ostream& operator<<(std::ostream& to, const sent_messages& sent) {
        return to << "rules +" << sent.rules_added << " -" << sent.rules_deleted << ", maps +"
                  << sent.maps_added << " -" << sent.maps_deleted << ", elements +" << sent.elements_added
                  << " -" << sent.elements_deleted;
    }
};

sent_messages messages_of(const batch& changes) {
    const std::string bytes = changes.bytes(false);
    sent_messages sent;
    nlmsghdr header{};
    for (std::size_t at = 0; at < bytes.size(); at += header.nlmsg_len) {
        std::memcpy(&header, bytes.data() + at, sizeof header);
        const int type = header.nlmsg_type & 0xFF;
        sent.rules_added += type == NFT_MSG_NEWRULE ? 1 : 0;
        sent.rules_deleted += type == NFT_MSG_DELRULE ? 1 : 0;
        sent.maps_added += type == NFT_MSG_NEWSET ? 1 : 0;
        sent.maps_deleted += type == NFT_MSG_DELSET ? 1 : 0;
        sent.elements_added += type == NFT_MSG_NEWSETELEM ? 1 : 0;
        sent.elements_deleted += type == NFT_MSG_DELSETELEM ? 1 : 0;
    }
    return sent;
}

class ListPlanner : public ::testing::Test {
  protected:
    static constexpr u32 run_min = 3;
    const chain_name chain{family::netdev, "acl-0-3-1.0"};

    void SetUp() override {
        held.tables = {family::netdev, family::inet};
        ASSERT_EQ(plan_all(), 0u);
    }

    void set(u32 sn, const std::string& text) {
        std::string error;
        const auto rule = ace::parse_rule(text, error);
        ASSERT_TRUE(rule.has_value()) << text << ": " << error;
        aces.insert_or_assign(sn, *rule);
    }
    // Hosts 10.0.0.SN, denied.
    void set_hosts(std::initializer_list<u32> numbers) {
        for (const u32 sn : numbers) {
            set(sn, "deny ip host 10.0.0." + std::to_string(sn) + " any");
        }
    }

    u32 plan_all() { return plan_some(std::nullopt); }
    u32 plan_some(const std::optional<std::set<u32>>& touched) {
        change_request request;
        request.limits = {100, run_min};
        wanted_chain list;
        list.counter = "0-3-1.0";
        list.touched = touched;
        for (const auto& [sn, rule] : aces) {
            if (!touched || touched->contains(sn)) {
                const u64 fingerprint = keyed_fingerprint(rule);
                list.rules.push_back({{kind_ace, sn, sn, 0, fingerprint}, &rule, {}});
            }
        }
        request.chains[chain] = list;
        transaction out;
        const u32 error = plan(
            request, held, [](const chain_name&) -> u32 { return EIO; }, out);
        if (error == 0) {
            sent = messages_of(out.changes);
            std::vector<u64> handles;
            for (std::size_t rule = 0; rule < out.changes.added_rules(); ++rule) {
                handles.push_back(++last_handle);
            }
            out.done(held, handles);
        }
        return error;
    }

    // The number of each ACE's run; 0: none.
    std::map<u32, u32> held_runs() {
        std::map<u32, u32> runs;
        for (const held_rule& rule : held.chains.at(chain)) {
            runs[rule.identity->first] = rule.run ? rule.run->number : 0;
        }
        return runs;
    }

    std::map<u32, ace::rule> aces;
    held_tables held;
    sent_messages sent;

  private:
    static u64 keyed_fingerprint(const ace::rule& rule) {
        return std::hash<std::string>()(ace::print_rule(rule));
    }

    u64 last_handle = 0;
};

using runs = std::map<u32, u32>;

TEST_F(ListPlanner, EnoughAcesOfOneShapeShareMaps) {
    set_hosts({10, 20});
    set(30, "permit ip host 10.0.0.30 any");
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(sent, (sent_messages{.rules_added = 2, .maps_added = 2, .elements_added = 3}));
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}}));
    EXPECT_TRUE(held.counters.contains("0-3-1.0-30.0"));
}

TEST_F(ListPlanner, TooFewAcesHaveRules) {
    set_hosts({10, 20});
    set(30, "deny ip any host 10.0.0.30");
    set_hosts({40, 50});
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(sent, (sent_messages{.rules_added = 5}));
}

TEST_F(ListPlanner, EqualKeysAreInDifferentRuns) {
    set_hosts({10, 20, 30});
    set(40, "permit ip host 10.0.0.20 any");
    set_hosts({50, 60});
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}, {40, 2}, {50, 2}, {60, 2}}));
}

TEST_F(ListPlanner, AnAceThatJoinsARunIsOneElement) {
    set_hosts({20, 30, 50});
    EXPECT_EQ(plan_all(), 0u);
    for (const u32 sn : {40u, 10u, 60u}) {
        set_hosts({sn});
        EXPECT_EQ(plan_some(std::set{sn}), 0u);
        EXPECT_EQ(sent, (sent_messages{.elements_added = 1})) << sn;
    }
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}, {40, 1}, {50, 1}, {60, 1}}));
}

TEST_F(ListPlanner, AnAceThatIsReplacedInARunIsTwoElements) {
    set_hosts({10, 20, 30});
    EXPECT_EQ(plan_all(), 0u);
    set(20, "permit ip host 10.0.0.20 any");
    EXPECT_EQ(plan_some(std::set{20u}), 0u);
    EXPECT_EQ(sent, (sent_messages{.elements_added = 1, .elements_deleted = 1}));
}

TEST_F(ListPlanner, ARunStaysOneUntilItsLastAceGoes) {
    set_hosts({10, 20, 30});
    set(40, "deny ip any any");
    EXPECT_EQ(plan_all(), 0u);
    for (const u32 sn : {20u, 10u}) {
        aces.erase(sn);
        EXPECT_EQ(plan_some(std::set{sn}), 0u);
        EXPECT_EQ(sent, (sent_messages{.elements_deleted = 1})) << sn;
    }
    aces.erase(30);
    EXPECT_EQ(plan_some(std::set{30u}), 0u);
    EXPECT_EQ(sent, (sent_messages{.rules_deleted = 2, .maps_deleted = 2}));
    EXPECT_EQ(held_runs(), (runs{{40, 0}}));
    EXPECT_EQ(held.counters, (std::set<std::string, std::less<>>{"0-3-1.0", "0-3-1.0-40.0"}));
}

TEST_F(ListPlanner, RulesBecomeARunWhenTheyAreEnough) {
    set_hosts({10, 20});
    set(50, "deny ip any any");
    EXPECT_EQ(plan_all(), 0u);
    set_hosts({30});
    EXPECT_EQ(plan_some(std::set{30u}), 0u);
    EXPECT_EQ(sent,
              (sent_messages{.rules_added = 2, .rules_deleted = 2, .maps_added = 2, .elements_added = 3}));
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}, {50, 0}}));
}

TEST_F(ListPlanner, AnAceThatDoesNotFitSplitsARun) {
    set_hosts({10, 20, 30, 50, 60, 70, 80});
    EXPECT_EQ(plan_all(), 0u);
    set(40, "deny ip any host 10.0.0.40");
    EXPECT_EQ(plan_some(std::set{40u}), needs_all_rules);
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(sent,
              (sent_messages{.rules_added = 3, .maps_added = 2, .elements_added = 4, .elements_deleted = 4}));
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}, {40, 0}, {50, 2}, {60, 2}, {70, 2}, {80, 2}}));
}

TEST_F(ListPlanner, WhatARunLosesMayBeTooFewForAnother) {
    set_hosts({10, 20, 30, 50});
    EXPECT_EQ(plan_all(), 0u);
    set(40, "deny ip any host 10.0.0.40");
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(sent, (sent_messages{.rules_added = 2, .elements_deleted = 1}));
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {20, 1}, {30, 1}, {40, 0}, {50, 0}}));
}

TEST_F(ListPlanner, AnAceThatIsCoveredByAnEarlierOneLeavesItsRun) {
    set_hosts({10, 20, 30});
    EXPECT_EQ(plan_all(), 0u);
    set(15, "permit ip host 10.0.0.30 any");
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(held_runs(), (runs{{10, 1}, {15, 1}, {20, 1}, {30, 0}}));
}

TEST_F(ListPlanner, AListThatIsWrittenAnewTakesNewMaps) {
    set_hosts({10, 20, 30});
    EXPECT_EQ(plan_all(), 0u);
    aces.clear();
    set_hosts({11, 21, 31});
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(
        sent,
        (sent_messages{
            .rules_added = 2, .rules_deleted = 1, .maps_added = 2, .maps_deleted = 2, .elements_added = 3}));
    EXPECT_EQ(held_runs(), (runs{{11, 2}, {21, 2}, {31, 2}}));
}

TEST_F(ListPlanner, AnAclThatGoesTakesItsMapsAlong) {
    set_hosts({10, 20, 30});
    EXPECT_EQ(plan_all(), 0u);
    change_request request;
    request.chains[chain] = std::nullopt;
    transaction out;
    EXPECT_EQ(plan(
                  request, held, [](const chain_name&) -> u32 { return EIO; }, out),
              0u);
    EXPECT_EQ(messages_of(out.changes), (sent_messages{.rules_deleted = 1, .maps_deleted = 2}));
    out.done(held, {});
    EXPECT_TRUE(held.chains.empty());
    EXPECT_TRUE(held.counters.empty());
}

TEST_F(ListPlanner, MapsOfNoRunGo) {
    held.stray_maps = {"acl-0-3-1.0-deny-1", "another"};
    set_hosts({10, 20, 30});
    EXPECT_EQ(plan_all(), 0u);
    EXPECT_EQ(sent,
              (sent_messages{.rules_added = 2, .maps_added = 2, .maps_deleted = 2, .elements_added = 3}));
    EXPECT_EQ(held_runs(), (runs{{10, 2}, {20, 2}, {30, 2}}));
    EXPECT_TRUE(held.stray_maps.empty());
}

}  // namespace
}  // namespace scc::kernel
