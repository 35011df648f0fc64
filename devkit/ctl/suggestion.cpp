#include "suggestion.h"

#include <fmt/format.h>

#include <algorithm>

namespace scc::ctl {
namespace {

constexpr std::size_t word_max = 64;  // longer words are no misspelt names

// Letters to insert, delete, replace or exchange with their neighbour.
std::size_t distance(std::string_view from, std::string_view to) {
    std::vector<std::vector<std::size_t>> cost(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = cost[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, replaced});
            const bool exchanged = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (exchanged) {
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
            }
        }
    }
    return cost[from.size()][to.size()];
}

}  // namespace

std::string closest(std::string_view word, const std::vector<std::string>& candidates) {
    if (word.empty() || word.size() > word_max) {
        return {};
    }
    std::string best;
    std::size_t least = word.size() / 3 + 1;  // more differences are another word
    for (const std::string& each : candidates) {
        const std::size_t differences = distance(word, each);
        if (differences <= least && differences < std::max(word.size(), each.size()) &&
            (best.empty() || differences < least)) {
            best = each;
            least = differences;
        }
    }
    return best;
}

std::string did_you_mean(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string best = closest(word, candidates);
    return best.empty() ? std::string() : fmt::format("; did you mean '{}'?", best);
}

}  // namespace scc::ctl
