// A hostile daemon's replies: to the registration on either socket, to the unregistration, and to every
// synchronous query.
//
//   input := settings which seed longest rest
//     settings: bit 0 the log is on; bit 1 the rest is the stream itself, otherwise it is the value of one
//               item of the reply's type, or with bit 2 of another type; bits 3 and 4 how the stream ends:
//               the peer hangs up, or the wait is interrupted or times out
#include <cerrno>
#include <vector>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "support/application.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/library.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

int g_ending = 0;

int nothing_to_receive(int /*fd*/) {
    return g_ending;
}

u32 exchange(u32 which, u8 seed, u32 exchanges) {
    constexpr registration_identity identity{7, 1};
    switch (which % exchanges) {
        case 0:
            return _scc_lib_client_reg(1, &identity);
        case 1:
            return _scc_lib_client_reg(0, &identity);
        case 2:
            return _scc_client_unreg(g_scc_client_cb.sync_fd.load(), 7, 1);
        default:
            return make_query(which % exchanges - 3, seed);
    }
}

u16 type_of_reply(u32 which, u32 exchanges) {
    switch (which % exchanges) {
        case 0:
        case 1:
            return msg::registration;
        case 2:
            return msg::unregistration;
        default:
            return reply_type_of(which % exchanges - 3);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    static const bool ready = prepare_library();
    (void)ready;
    input from(data, size);
    const u8 settings = from.byte();
    const u32 which = from.byte();
    const u8 seed = from.byte();
    const std::size_t longest = from.byte();
    const u32 exchanges = query_kinds() + 3;

    constexpr int endings[] = {0, EINTR, EAGAIN, ECONNRESET};
    g_ending = endings[settings >> 3 & 3u];
    system_hooks hooks;
    hooks.nothing_to_receive = nothing_to_receive;
    const system_in_use system(hooks);
    const int async_fd = open_fake_socket();
    const int sync_fd = open_fake_socket();
    set_application_events({});
    register_by_hand(async_fd, sync_fd, 1);
    scc_lib_debug.store(settings & 1u);

    static std::vector<u8> stream;
    stream.clear();
    if ((settings & 2u) != 0) {
        const auto rest = from.rest();
        stream.assign(rest.begin(), rest.end());
    } else {
        const u16 type = (settings & 4u) != 0 ? from.word() : type_of_reply(which, exchanges);
        append_message(stream, seed, type, from.rest());
    }
    const int fd = which % exchanges == 1 ? async_fd : sync_fd;
    deliver(fd, stream);
    limit_transfers(longest);
    (void)exchange(which, seed, exchanges);
    FUZZ_EXPECT(pending_calls() == 0);
    unregister_by_hand();
    return 0;
}
