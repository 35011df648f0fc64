// Judges the calls of one life of a client from its ledger, while they are made and at the end.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "soak/report.h"
#include "support/call_ledger.h"

namespace soak {

class auditor {
  public:
    auditor(test::call_ledger& ledger, group_report& report, std::string client)
        : ledger_(ledger), report_(report), client_(std::move(client)) {}

    // Judges the calls that are decided and empties their entries.
    void advance();
    // The first call up to this one that is neither answered nor may have gone with its connection.
    [[nodiscard]] std::optional<std::uint32_t> first_open(std::uint32_t up_to) const;
    // Records that such a call will not be answered.
    void give_up(std::uint32_t id);
    // Whether the user request with this number was made while a connection was lost.
    [[nodiscard]] bool has_straddling_user(std::uint32_t number) const;
    // Some of the calls dropped since the last query: they must not be answered any more.
    std::vector<std::uint32_t> take_dropped() { return std::exchange(dropped_, {}); }
    // Judges everything. The client must be dead or have nothing outstanding.
    void finish(bool killed);

  private:
    [[nodiscard]] bool is_decided(std::uint32_t id, const test::call_entry& call) const;
    [[nodiscard]] bool is_far_behind(std::uint32_t id, std::uint32_t calls) const;
    void judge(std::uint32_t id, const test::call_entry& call, bool ended);
    void take_counts();
    void fault(std::atomic<std::uint32_t>& count, std::uint32_t by, const std::string& text);

    struct seen_counts {
        std::uint32_t queries = 0, notifications = 0, cache_reads = 0, losses = 0;
        std::uint32_t out_of_order = 0, late_answers = 0, wrong_queries = 0, strange_notifications = 0,
                      cache_faults = 0, strange_returns = 0;
    };

    test::call_ledger& ledger_;
    group_report& report_;
    std::string client_;
    seen_counts seen_;
    std::uint32_t judged_ = 0;
    std::vector<std::uint32_t> dropped_;
    std::set<std::uint32_t> straddling_users_;  // of the calls that were judged
};

}  // namespace soak
