// Counts the library's system calls and makes them fail. In a copy of the static library every such call is
// renamed to one of the functions in shim.cpp, so only the library's own calls come here: those of the driver
// and its daemon go straight to the system. Any thread may call.
//
// A call site is the place in the code that makes the call; a fault names the site and which of its calls
// fails. Calls are counted per site, so races between threads at different sites do not change which call a
// fault means.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sweep {

// The waits of the protocol (2 seconds, 3 seconds, 20 times 200 ms) are divided by this, but last at least a
// millisecond.
inline constexpr int time_factor = 50;

enum class effect {
    error,      // the call fails with the error number
    end,        // recv: the peer has closed
    shortened,  // send and recv: one byte is moved
    torn        // send and recv: half of it is moved, and the next call of the site fails
};

struct fault {
    std::string call;
    std::uintptr_t site = 0;  // offset of the return address in the program
    unsigned nth = 0;         // of the site's calls, from 1
    effect what = effect::error;
    int error = 0;
    bool onwards = false;  // every call from the nth on
};

struct site_calls {
    std::string call;
    std::uintptr_t site;
    unsigned calls;
};

struct live_blocks {
    std::string call;
    std::uintptr_t site;
    unsigned blocks;
};

// Must be called before the first thread starts.
void arm(const fault& wanted);
// Calls are counted, and the fault can strike, from here to end_faults.
void begin_faults();
void end_faults();
// Ends the fault if it affects more than one call.
void end_lasting_fault();
[[nodiscard]] bool is_met();

[[nodiscard]] std::vector<site_calls> counted_calls();
// What the library has allocated and not freed.
[[nodiscard]] std::vector<live_blocks> blocks();
[[nodiscard]] unsigned block_count();
// Streams that the library has opened and not closed.
[[nodiscard]] int open_streams();
// Frees what the library handed out to its caller.
void free_block(void* block);

// Frees of blocks that the library did not allocate, or had already freed.
[[nodiscard]] unsigned strange_frees();

}  // namespace sweep
