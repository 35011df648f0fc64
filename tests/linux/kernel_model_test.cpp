// Random operations on the back end, and a model that says what their results are and what the kernel holds.
#include <algorithm>
#include <random>

#include "kernel_rules.h"

namespace scc::kernel {
namespace {

using namespace testing;

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

// Most rules compare the same fields, so that they can share maps; every sixth compares none.
std::string rule_text(u32 id) {
    const std::string verdict = id % 4 == 0 ? " permit" : " deny";
    return verdict + (id % 6 == 0 ? " ip any any" : " tcp any any eq " + std::to_string(id));
}

void compare_with_model(int operations, const list_limits& limits) {
    back_end_bench bench(map_text, nullptr, limits);
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
        scc_ace_record ace = ace_of(std::to_string(sn) + rule_text(id) + " id " + std::to_string(id));
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

TEST_F(KernelBackEnd, TheKernelIsLikeAModelAfterTenThousandOperations) {
    compare_with_model(10'000, {1000, 3});
}

TEST_F(KernelBackEnd, TheKernelIsLikeAModelWhenListsAreCutIntoChains) {
    compare_with_model(5'000, {3, 2});
}

}  // namespace
}  // namespace scc::kernel
