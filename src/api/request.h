// The engine of asynchronous requests, for the exported calls of this folder. Any thread; a request holds
// scc_lib_lock.
//
// A request is a row (message type, request kind, statistics), the data saved for its result, and its
// payload, which begins with the call id. A scalar request derives both from its arguments: they are saved
// packed, and sent in slots of at least 4 bytes.
#pragma once

#include <array>
#include <span>

#include "client/acl_cache.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/kinds.h"
#include "client/locked_call.h"
#include "client/log.h"
#include "client/pending_calls.h"
#include "client/request_channel.h"
#include "msg/bytes.h"
#include "msg/result_codes.h"
#include "scclib.h"

namespace scc {

// Constructed in the exported call, whose name the request's log lines carry.
struct request_row {
    constexpr request_row(u16 message_type, u32 request_kind, u32 counted_at = not_counted,
                          const char* call = __builtin_FUNCTION())
        : type(message_type), kind(request_kind), statistics(counted_at), function(call) {}

    u16 type;
    u32 kind;
    u32 statistics;
    const char* function;
};

// A request whose arguments have been checked.
class request {
  public:
    request(const request_row& row, u32* call_id_out) : row_(row), call_id_out_(call_id_out) {}

    // Takes a call id; false when the application is not registered.
    [[nodiscard]] bool begin();
    [[nodiscard]] u32 call_id() const { return call_id_; }
    // Saves the data, sends the payload and hands out the call id.
    [[nodiscard]] u32 finish(const value_parts& saved, const value_parts& payload);
    // For a request whose row depends on the record's form.
    void set_row(const request_row& row) { row_ = row; }

  private:
    [[nodiscard]] u32 send(const value_parts& payload);

    request_row row_;
    u32* call_id_out_;
    u32 call_id_ = 0;
    locked_call call_;
};

// The call id, then zeros.
template <std::size_t Size>
struct payload {
    std::array<u8, Size> bytes{};

    explicit payload(u32 call_id) { store<u32>(bytes.data(), 0, call_id); }

    template <class T>
    payload& put(std::size_t offset, const T& value) {
        store<T>(bytes.data(), offset, value);
        return *this;
    }
};

// An int argument: sent whole, its low byte saved for the result.
struct low_byte {
    int value;
};

// Four zero bytes, not saved.
struct unset_slot {};

namespace request_detail {

template <class T>
struct field {
    static constexpr std::size_t saved_bytes = sizeof(T);
    static constexpr std::size_t slot_bytes = sizeof(T) < sizeof(u32) ? sizeof(u32) : sizeof(T);
    static void save(u8* at, const T& value) { store<T>(at, 0, value); }
    static void fill(u8* at, const T& value) { store<T>(at, 0, value); }
};

template <>
struct field<low_byte> {
    static constexpr std::size_t saved_bytes = 1;
    static constexpr std::size_t slot_bytes = sizeof(u32);
    static void save(u8* at, low_byte field) { *at = static_cast<u8>(field.value); }
    static void fill(u8* at, low_byte field) { store<i32>(at, 0, field.value); }
};

template <>
struct field<unset_slot> {
    static constexpr std::size_t saved_bytes = 0;
    static constexpr std::size_t slot_bytes = sizeof(u32);
    static void save(u8* /*at*/, unset_slot /*field*/) {}
    static void fill(u8* /*at*/, unset_slot /*field*/) {}
};

}  // namespace request_detail

template <class... Fields>
[[nodiscard]] u32 scalar_request(const request_row& row, u32* call_id_out, const Fields&... fields) {
    using request_detail::field;
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    std::array<u8, (std::size_t{0} + ... + field<Fields>::saved_bytes)> saved{};
    payload<(sizeof(u32) + ... + field<Fields>::slot_bytes)> sent(call.call_id());
    u8* save_at = saved.data();
    u8* fill_at = sent.bytes.data() + sizeof(u32);
    ((field<Fields>::save(save_at, fields), save_at += field<Fields>::saved_bytes,
      field<Fields>::fill(fill_at, fields), fill_at += field<Fields>::slot_bytes),
     ...);
    return call.finish({saved}, {sent.bytes});
}

// Precedes a record in its payload: the call id and 4 zero bytes.
using record_head = payload<8>;

// Sends and saves the caller's 736-byte record.
[[nodiscard]] u32 record_request(const request_row& row, const scc_config_record* record, u32* call_id_out);

}  // namespace scc
