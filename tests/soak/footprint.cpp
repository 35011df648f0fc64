#include "soak/footprint.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace soak {
namespace {

std::optional<int> entries_of(const std::string& directory) {
    std::error_code gone;
    int count = 0;
    for (std::filesystem::directory_iterator entry(directory, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        ++count;
    }
    return gone ? std::nullopt : std::optional(count);
}

std::optional<int> resident_kib_of(const std::string& process) {
    std::ifstream rollup(process + "/smaps_rollup");
    for (std::string word; rollup >> word;) {
        if (int kib = 0; word == "Rss:" && rollup >> kib) {
            return kib;
        }
    }
    return std::nullopt;
}

void raise(std::atomic<std::int32_t>& greatest, int value) {
    std::int32_t before = greatest;
    while (value > before && !greatest.compare_exchange_weak(before, value)) {
    }
}

}  // namespace

std::optional<footprint> footprint_of(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    const auto descriptors = entries_of(process + "/fd");
    const auto threads = entries_of(process + "/task");
    const auto resident = resident_kib_of(process);
    if (!descriptors || !threads || !resident) {
        return std::nullopt;
    }
    return footprint{*descriptors, *threads, *resident};
}

bool footprint_watch::is_steady(pid_t pid) {
    newest_ = footprint_of(pid);
    if (!newest_) {
        return false;
    }
    if (!least_) {
        least_ = newest_;
    }
    least_->descriptors = std::min(least_->descriptors, newest_->descriptors);
    least_->threads = std::min(least_->threads, newest_->threads);
    return newest_->descriptors == least_->descriptors && newest_->threads == least_->threads;
}

std::string footprint_watch::text() const {
    if (!newest_) {
        return "cannot be looked at";
    }
    return "has " + std::to_string(newest_->descriptors) + " descriptors and " +
           std::to_string(newest_->threads) + " threads, before " + std::to_string(least_->descriptors) +
           " and " + std::to_string(least_->threads);
}

std::string footprint_watch::take(drift& drifts) {
    if (!newest_) {
        return text();
    }
    if (!counted_) {
        counted_ = true;
        ++drifts.lives;
    }
    raise(drifts.descriptors, newest_->descriptors - least_->descriptors);
    raise(drifts.threads, newest_->threads - least_->threads);
    if (clock::now() - start_ < warm_up_) {
        return {};
    }
    if (!warm_kib_) {
        warm_kib_ = newest_->resident_kib;
        ++drifts.old_lives;
    }
    const int growth = newest_->resident_kib - *warm_kib_;
    raise(drifts.memory_kib, growth);
    return growth <= memory_growth_max_kib
               ? ""
               : "has grown by " + std::to_string(growth) + " KiB since it was warm";
}

}  // namespace soak
