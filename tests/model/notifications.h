// What the daemon sends unasked: the bytes of each item, and the handler call that it causes.
#pragma once

#include <span>

#include "model/events.h"

namespace model {

constexpr u32 heard_by_nobody = 255;

struct notification {
    u16 type;
    bytes value;
    u32 position;  // of the handler
    bytes arguments;
    int call_counter = -1;
    int outcome_counter = -1;  // counted when there is a handler
    bool handler_decides = false;
};

constexpr u8 notification_kinds = 16;
notification make_notification(u8 which, u8 seed);
// What the handler of user changes returns to the library.
int answer_to_user_change(u8 add);

}  // namespace model
