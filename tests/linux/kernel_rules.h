// Four interfaces for the back end, and the rules that the kernel holds for them. They are read with nft(8),
// not with the code under test.
#pragma once

#include <map>
#include <sstream>

#include "kernel_support.h"
#include "support/waiting.h"

namespace scc::kernel::testing {

inline constexpr const char* map_text =
    "ifx 1 d1\nifx 2 d2\nifx 3 d3\nifx 9 d9 router\ncpp 1 5 icmp any any\n";

class KernelBackEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        NEED_A_NAMESPACE();
        for (const char* name : {"d1", "d2", "d3", "d9"}) {
            command(std::string("ip link add ") + name + " type bridge && ip link set " + name + " up");
        }
    }
};

// "sn id" of each ACE in a chain; for other rules their text.
using chain_rules = std::vector<std::string>;

// Puts the chains of each long list together, along the rules that lead from one to the next.
inline void join_lists(std::map<std::string, chain_rules>& chains) {
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

// By sequence number, "sn id" of each ACE in a map. Every element counts in its own ACE's counter.
using map_aces = std::map<unsigned, std::string>;

// False if an element is there already: the kernel lists some twice, and may leave out others, if it enlarges
// the map meanwhile.
inline bool take_elements(const std::string& line, map_aces& aces) {
    const std::string begin = "comment \"a";
    for (std::size_t at = line.find(begin); at != std::string::npos; at = line.find(begin, at + 1)) {
        unsigned sn = 0;
        unsigned id = 0;
        char counter[64] = {};
        if (std::sscanf(line.c_str() + at, "comment \"a2 %u %u %*u %*s 1/1\" : \"%63[^\"]\"", &sn, &id,
                        counter) != 3) {
            ADD_FAILURE() << line;
            continue;
        }
        EXPECT_NE(std::string(counter).find("-" + std::to_string(id) + "."), std::string::npos) << line;
        if (!aces.emplace(sn, std::to_string(sn) + " " + std::to_string(id)).second) {
            return false;
        }
    }
    return true;
}

// Puts the ACEs of each run in the place of its rule, "run N".
inline void expand_runs(std::map<std::string, chain_rules>& chains, std::map<std::string, map_aces>& maps) {
    for (auto& [name, rules] : chains) {
        chain_rules expanded;
        for (const std::string& rule : rules) {
            if (!rule.starts_with("run ")) {
                expanded.push_back(rule);
                continue;
            }
            map_aces aces;
            for (const char* verdict : {"-deny-", "-permit-"}) {
                const auto map = maps.find(name + verdict + rule.substr(4));
                ASSERT_NE(map, maps.end()) << name << ", " << rule;
                aces.merge(map->second);
                EXPECT_TRUE(map->second.empty()) << map->first;
                maps.erase(map);
            }
            EXPECT_FALSE(aces.empty()) << name << ", " << rule;
            for (const auto& [sn, ace] : aces) {
                expanded.push_back(ace);
            }
        }
        rules = expanded;
    }
    EXPECT_TRUE(maps.empty()) << maps.begin()->first;
}

// False if a map was enlarged meanwhile.
inline bool read_rules(std::map<std::string, chain_rules>& chains, std::map<std::string, map_aces>& maps) {
    chains.clear();
    maps.clear();
    std::istringstream lines(output_of("nft -s list table netdev scclib"));
    std::string chain;
    std::string map;
    for (std::string line; std::getline(lines, line);) {
        char name[64] = {};
        unsigned sn = 0;
        unsigned id = 0;
        unsigned part = 0;
        const std::size_t comment = line.find("comment \"");
        if (std::sscanf(line.c_str(), " chain %63s {", name) == 1) {
            chain = name;
            map.clear();
            chains[chain];
        } else if (std::sscanf(line.c_str(), " map %63s {", name) == 1) {
            map = name;
            maps[map];
        } else if (!map.empty()) {
            if (!take_elements(line, maps[map])) {
                return false;
            }
        } else if (comment != std::string::npos &&
                   std::sscanf(line.c_str() + comment, "comment \"m2 %u %*u %*u %*s %u/", &sn, &part) == 2) {
            if (part == 1) {
                chains[chain].push_back("run " + std::to_string(sn));
            }
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
    return true;
}

inline std::map<std::string, chain_rules> rules_of_kernel() {
    std::map<std::string, chain_rules> chains;
    std::map<std::string, map_aces> maps;
    EXPECT_TRUE(test::eventually([&] { return read_rules(chains, maps); })) << "a map has an element twice";
    expand_runs(chains, maps);
    join_lists(chains);
    return chains;
}

}  // namespace scc::kernel::testing
