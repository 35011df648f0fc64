// Every result handler of an application; each reports its position in the handler table and the bytes of its
// arguments after result and call id.
#pragma once

#include <tuple>
#include <type_traits>

#include "scclib.h"
#include "support/events.h"
#include "support/result_handlers.h"
#include "support/wire_bytes.h"

namespace test {

struct recorded_result {
    std::size_t position = 0;
    std::uint32_t result = 0;
    std::uint32_t call_id = 0;
    bytes arguments;  // integers in their own widths, records whole
};

inline event_queue<recorded_result>& results() {
    static auto* queue = new event_queue<recorded_result>;
    return *queue;
}

// Each handler is one pointer of the table.
template <auto Member>
std::size_t position_of() {
    static const scc_handlers table{};
    const auto* start = reinterpret_cast<const char*>(&table);
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&(table.*Member)) - start) / sizeof(void*);
}

template <class T>
void append_argument(wire& out, T argument) {
    if constexpr (std::is_pointer_v<T>) {
        out.raw(argument, sizeof *argument);
    } else {
        out.raw(&argument, sizeof argument);
    }
}

template <auto Member, class Handler>
struct recorder;

template <auto Member, class... Arguments>
struct recorder<Member, void (*)(std::uint32_t, std::uint32_t, Arguments...)> {
    static void call(std::uint32_t result, std::uint32_t call_id, Arguments... arguments) {
        wire out;
        (append_argument(out, arguments), ...);
        results().push({position_of<Member>(), result, call_id, out});
    }
};

// The control block of scc_efacl_ctrl arrives as a pointer and a length.
template <auto Member>
struct recorder<Member, void (*)(std::uint32_t, std::uint32_t, const void*, std::int32_t)> {
    static void call(std::uint32_t result, std::uint32_t call_id, const void* data, std::int32_t data_bytes) {
        results().push({position_of<Member>(), result, call_id,
                        wire()
                            .raw(data, static_cast<std::size_t>(data_bytes))
                            .u32(static_cast<std::uint32_t>(data_bytes))});
    }
};

template <auto Member>
void install_recorder(scc_handlers& handlers) {
    handlers.*Member = recorder<Member, std::remove_reference_t<decltype(handlers.*Member)>>::call;
}

inline void record_all_results(scc_handlers& handlers) {
#define RECORD(member) install_recorder<&scc_handlers::member>(handlers);
    SCC_RESULT_HANDLERS(RECORD)
    RECORD(efacl_ctrl)
#undef RECORD
}

}  // namespace test
