// The groups' reports to the process that started them, in memory that all of them share.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

namespace soak {

enum class target { daemon, service, client };
inline constexpr std::size_t targets = 3;
inline constexpr const char* target_names[targets] = {"daemon", "service", "client"};

// How far processes of one kind have drifted from their first measurement.
struct drift {
    std::atomic<std::uint32_t> lives;      // long enough to compare descriptors and threads
    std::atomic<std::uint32_t> old_lives;  // long enough to compare memory
    std::atomic<std::int32_t> descriptors;
    std::atomic<std::int32_t> threads;
    std::atomic<std::int32_t> memory_kib;
};

struct group_report {
    static constexpr std::size_t texts_max = 6;

    std::atomic<std::uint32_t> kills[targets];  // SIGKILL
    std::atomic<std::uint32_t> stops[targets];  // SIGSTOP, and SIGCONT later
    std::atomic<std::uint64_t> requests;        // that the library accepted
    std::atomic<std::uint64_t> answers;
    std::atomic<std::uint64_t> timed_out;  // answers that report a service that died before it answered
    std::atomic<std::uint64_t> dropped;
    std::atomic<std::uint64_t> queries;
    std::atomic<std::uint64_t> notifications;
    std::atomic<std::uint64_t> cache_reads;
    std::atomic<std::uint32_t> reconnections;
    std::atomic<std::uint32_t> lost;
    std::atomic<std::uint32_t> twice;
    std::atomic<std::uint32_t> out_of_order;
    std::atomic<std::uint32_t> wrong;  // a swapped answer, or an unexpected result, notification or cache
    drift drifts[targets];
    std::atomic<std::uint32_t> faults;
    char texts[texts_max][1600];

    void tell_fault(const std::string& text) {
        const std::uint32_t index = faults++;
        if (index < texts_max) {
            std::snprintf(texts[index], sizeof texts[index], "%s", text.c_str());
        }
    }
};

enum class ending : std::uint32_t { none, wanted, interrupted };

// Written by the process that started the groups.
struct shared_state {
    static constexpr std::size_t groups_max = 32;

    std::atomic<ending> end;
    group_report groups[groups_max];
};

}  // namespace soak
