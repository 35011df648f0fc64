// Items of an application one at a time, as bare values: each in a block of exactly its size, so that a read
// past the value is found.
//
//   input := settings {row length given {byte}} (an item as in wire_plan.h)
//     settings: bit 0 the log is on, bit 1 without handlers
#include <cstdlib>
#include <vector>

#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/handlers.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "support/application.h"
#include "support/fail.h"
#include "support/fake_system.h"
#include "support/library.h"

using namespace scc;
using namespace scc::fuzz;

namespace {

void dispatch_alone(input& from) {
    static std::vector<u8> items;
    items.clear();
    append_planned_item(from, application_items(), items);
    auto* exact = static_cast<u8*>(std::malloc(items.size()));
    std::memcpy(exact, items.data(), items.size());
    _scc_lib_async_msg_proc(1, exact);
    std::free(exact);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
    static const bool ready = prepare_library();
    (void)ready;
    input from(data, size);
    const u8 settings = from.byte();
    const system_in_use system({});
    const int async_fd = open_fake_socket();
    const int sync_fd = open_fake_socket();
    set_application_events({});
    register_by_hand(async_fd, sync_fd, 1);
    if ((settings & 2u) != 0) {
        _scc_lib_handler_clear();
    }
    scc_lib_debug.store(settings & 1u);
    while (!from.empty()) {
        dispatch_alone(from);
    }
    FUZZ_EXPECT(pending_calls() == 0);
    unregister_by_hand();
    return 0;
}
