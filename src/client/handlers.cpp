// See handlers.h. Called with scc_lib_lock held; the threads that deliver read single pointers without it.
#include "client/handlers.h"

#include <cstddef>

#include "client/control_block.h"

using namespace scc;

namespace scc {
namespace {

constexpr std::size_t positions = sizeof(scc_handlers) / sizeof(void*);
constexpr std::size_t filter_counter_position = 42;
constexpr std::size_t water_line_position = 67;

static_assert(positions == 70);
static_assert(sizeof(scc_reg_info) == 568);
static_assert(offsetof(scc_handlers, filter_counter_reset) == filter_counter_position * sizeof(void*));
static_assert(offsetof(scc_handlers, water_line) == water_line_position * sizeof(void*));

using any_handler = void (*)();

any_handler* slots(scc_handlers& handlers) {
    return reinterpret_cast<any_handler*>(&handlers);
}

const any_handler* slots(const scc_handlers& handlers) {
    return reinterpret_cast<const any_handler*>(&handlers);
}

}  // namespace
}  // namespace scc

extern "C" {

// Deliberately leaves out the water-line handler: every water-line notification is ignored.
void _scc_lib_handler_set(const scc_reg_info* info) {
    for (std::size_t i = 0; i < positions; ++i) {
        if (i != water_line_position) {
            store_handler(slots(g_scc_client_cb.handlers)[i], slots(info->handlers)[i]);
        }
    }
}

// Deliberately keeps the filter counter's handler, and the water line's, which was never set.
void _scc_lib_handler_clear() {
    for (std::size_t i = 0; i < positions; ++i) {
        if (i != filter_counter_position && i != water_line_position) {
            store_handler(slots(g_scc_client_cb.handlers)[i], any_handler{nullptr});
        }
    }
}
}
