// A hostile daemon's bytes on the asynchronous socket of an application with calls of every kind pending:
// reads split the stream anywhere, runs of results cross message boundaries, and every handler reads
// everything that it is promised.
//
//   input := settings requests reads {which seed} rest
//     settings: bit 0 the log is on, bit 1 the rest is the stream itself and not a plan of it, bits 2 and 3
//               the registration option, bit 4 a run of results ends with its message, bit 5 the cache is
//               read afterwards
//     reads:    the longest read, in units of 3 bytes; 0 for any
#include <vector>

#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/lifetime.h"
#include "client/log.h"
#include "client/message_stream.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "support/application.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/library.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

constexpr std::size_t calls_max = 64;

struct waiting_call {
    u32 position = 0;
    u8 seed = 0;
    bool waits = false;
};

// Call ids are 1 to calls_max.
waiting_call g_calls[calls_max + 1];
std::size_t g_waiting = 0;

int on_result(u32 position, u32 /*result*/, u32 call_id) {
    FUZZ_EXPECT(call_id >= 1 && call_id <= calls_max && g_calls[call_id].waits);
    FUZZ_EXPECT(g_calls[call_id].position == position);
    g_calls[call_id].waits = false;
    --g_waiting;
    return g_calls[call_id].seed;
}

void save_calls(input& from, std::size_t count) {
    g_waiting = 0;
    for (waiting_call& each : g_calls) {
        each = {};
    }
    for (std::size_t i = 0; i < count; ++i) {
        u32 call_id = 0;
        u32 position = 0;
        const u8 which = from.byte();
        const u8 seed = from.byte();
        const u32 error = make_request(which, seed, &call_id, position);
        if (error != 0) {
            continue;
        }
        FUZZ_EXPECT(call_id >= 1 && call_id <= calls_max && !g_calls[call_id].waits);
        g_calls[call_id] = {position, seed, true};
        ++g_waiting;
    }
}

void receive_everything(int fd, bool flush_each) {
    static message_stream stream;
    stream.reset();
    result_run results(current_generation());
    for (u32 error = 0; error == 0;) {
        error = stream.fill(fd);
        for (;;) {
            void* message = nullptr;
            const u32 refusal = stream.next(&message);
            if (message == nullptr) {
                if (refusal == 0) {
                    break;
                }
                continue;
            }
            dispatch_items(load<u16>(message, 5), static_cast<u8*>(message) + wire::header_bytes, results);
            std::free(message);
            if (flush_each) {
                results.deliver();
            }
        }
    }
    results.deliver();
    stream.reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    static const bool ready = prepare_library();
    (void)ready;
    input from(data, size);
    const u8 settings = from.byte();
    const std::size_t requests = from.byte() % (calls_max + 1);
    const std::size_t longest_read = from.byte() * std::size_t{3};

    const system_in_use system({});
    const int async_fd = open_fake_socket();
    const int sync_fd = open_fake_socket();
    set_application_events({on_result, nullptr, nullptr});
    register_by_hand(async_fd, sync_fd, static_cast<u8>(settings >> 2 & 3u));
    scc_lib_debug.store(settings & 1u);
    save_calls(from, requests);
    FUZZ_EXPECT(pending_calls() == g_waiting);

    static std::vector<u8> stream;
    stream.clear();
    if ((settings & 2u) != 0) {
        const auto rest = from.rest();
        stream.assign(rest.begin(), rest.end());
    } else {
        while (!from.empty() && stream.size() < 65536) {
            append_planned_message(from, application_items(), stream);
        }
    }
    deliver(async_fd, stream);
    hang_up(async_fd);
    limit_transfers(longest_read);
    receive_everything(async_fd, (settings & 16u) != 0);
    FUZZ_EXPECT(pending_calls() == g_waiting);
    for (u8 seed = 0; (settings & 32u) != 0 && seed < 24; ++seed) {
        make_other_call(seed % 3u, static_cast<u8>(seed / 3u * 4u));
    }
    for (u32 call_id = 1; call_id <= requests && g_waiting > 0; ++call_id) {
        if (g_calls[call_id].waits) {
            _scc_lib_del_call_data(call_id);
            --g_waiting;
        }
    }
    unregister_by_hand();
    return 0;
}
