// The application's and the service's handlers: each records its arguments.
#pragma once

#include <cstddef>
#include <type_traits>

#include "model/library_model.h"

namespace model {

// Called by each handler; the second one for operations, with the service's record.
void heard_by_handler(u32 position, bytes arguments);
void asked_of_handler(u32 handler, const void* record, std::size_t record_bytes, bytes arguments);

template <class Argument>
void append_argument(bytes& to, Argument argument) {
    if constexpr (std::is_pointer_v<Argument>) {
        append_block(to, argument, sizeof *argument);
    } else {
        append_number(to, argument);
    }
}

template <std::size_t Position, class... Arguments>
void install(void (*&handler)(Arguments...)) {
    handler = [](Arguments... arguments) {
        bytes told;
        (append_argument(told, arguments), ...);
        heard_by_handler(Position, std::move(told));
    };
}

template <u32 Slot, class Record>
void install_operation(int (*&handler)(Record*)) {
    handler = [](Record* record) {
        bytes told;
        append_number(told, record->id);
        append_number(told, record->flag);
        if constexpr (
            requires { record->key; } && !requires { record->apply; }) {
            append_block(told, &record->key, sizeof record->key);
        }
        asked_of_handler(Slot, record, sizeof *record, std::move(told));
        return 0;
    };
}

scc_handlers application_handlers(const start_facts& facts);
scc_ss_reg_info service_handlers(const start_facts& facts);

}  // namespace model
