// What the applications under load have in common: the words of their command lines, their registration and
// their threads.
#pragma once

#include <scclib.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "support/call_notes.h"
#include "support/loop_thread.h"

namespace test {

// Of this process; the library's threads use it until the process ends.
struct load_program {
    call_notes* notes = nullptr;
    std::uint32_t app_id = 0;
    std::uint32_t life = 0;
};

// The first words are APP_ID LIFE LEDGER; two of the program's own follow. Returns the exit status of a
// failure, or 0.
inline int begin_load(int count, char** words, load_program& into) {
    if (count != 6) {
        return 64;
    }
    into.app_id = static_cast<std::uint32_t>(std::atoi(words[1]));
    into.life = static_cast<std::uint32_t>(std::atoi(words[2]));
    static const auto* ledger = new mapped_ledger(words[3]);  // the handlers outlive main
    if (!ledger->is_there()) {
        std::perror(words[3]);
        return 65;
    }
    into.notes = new call_notes(**ledger);
    return 0;
}

// Registers, runs each load on a thread of its own, the last one on this, and unregisters. The record
// outlives the registration. Returns the exit status.
inline int run_load(scc_reg_info& info, bool has_loop, const load_program& program,
                    const std::vector<std::function<void()>>& loads) {
    static auto* const loop = has_loop ? new loop_thread : nullptr;
    const std::uint32_t error =
        has_loop ? loop->run([&info] { return scc_agent_init(&info, loop->master()); }) : scc_svr_reg(&info);
    if (error != 0) {
        return 1;
    }
    program.notes->ledger().load_threads = static_cast<std::uint32_t>(loads.size());
    std::vector<std::thread> beside;
    for (std::size_t i = 0; i + 1 < loads.size(); ++i) {
        beside.emplace_back(loads[i]);
    }
    loads.back()();
    for (std::thread& each : beside) {
        each.join();
    }
    return (has_loop ? loop->run(scc_agent_finish) : scc_svr_unreg()) == 0 ? 0 : 2;
}

}  // namespace test
