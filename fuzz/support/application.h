// The fuzzers' application: every asynchronous request with arguments chosen by a byte, and handlers that
// read everything they are promised and compare the returned arguments with the request's.
#pragma once

#include <span>

#include "scclib.h"
#include "support/wire_plan.h"

namespace scc::fuzz {

// The seed of a request, or -1 if its result cannot be compared.
struct application_events {
    int (*result)(u32 position, u32 result, u32 call_id) = nullptr;
    void (*notified)(u32 position) = nullptr;
    void (*status)(u32 status) = nullptr;
};

void set_application_events(const application_events& events);
[[nodiscard]] scc_handlers reading_handlers();

[[nodiscard]] u32 request_kinds();
// Makes a request; position gets the position of its handler.
[[nodiscard]] u32 make_request(u32 which, u8 seed, u32* call_id, u32& position);
// Every other call of an application except registration and the queries.
void make_other_call(u32 which, u8 seed);
[[nodiscard]] u32 query_kinds();
// Makes a synchronous query; checks that a failed one leaves the caller's values alone.
[[nodiscard]] u32 make_query(u32 which, u8 seed);
[[nodiscard]] u16 reply_type_of(u32 which);

// The items that an application receives, with their least lengths.
[[nodiscard]] std::span<const planned_type> application_items();
// The operations that the service receives.
[[nodiscard]] std::span<const planned_type> service_items();

}  // namespace scc::fuzz
