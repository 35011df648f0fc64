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
    // The same for data and a payload of so many bytes that save(at) and fill(at) write.
    template <std::size_t SavedBytes, std::size_t SentBytes, class Save, class Fill>
    [[nodiscard]] u32 finish(Save save, Fill fill);
    // For a request whose row depends on the record's form.
    void set_row(const request_row& row) { row_ = row; }

  private:
    // What follows the sending; returns its error.
    [[nodiscard]] u32 end(u32 error) const;

    request_row row_;
    u32* call_id_out_;
    u32 call_id_ = 0;
    locked_call call_;
};

[[gnu::always_inline]] inline u32 request::end(u32 error) const {
    // Also when the connection was lost after the state check and its calls were dropped. The thread that
    // drops them ends the epoch and then looks for calls; this one saves its call and then looks for the
    // epoch. The lock of the batch lies in between, so that one of the two sees what the other has done.
    if (error != result::ok || epoch_of_this_thread() != connection_epoch()) [[unlikely]] {
        _scc_lib_del_call_data(call_id_);
    }
    if (call_id_out_ != nullptr) {
        *call_id_out_ = call_id_;
    }
    if (row_.statistics != not_counted) {
        count_call(row_.statistics, error == result::ok);
    }
    return error;
}

template <std::size_t SavedBytes, std::size_t SentBytes, class Save, class Fill>
[[gnu::always_inline]] inline u32 request::finish(Save save, Fill fill) {
    call_.holds_lock();
    pending_call* const call = new_call(call_id_, row_.kind, SavedBytes);
    if (call == nullptr) {
        return result::no_memory;
    }
    save(call->data());
    keep_call(call);
    return end(send_in_batch<SentBytes>(row_.type, fill));
}

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
    static void fill(u8* at, const T& value) {
        if constexpr (slot_bytes > sizeof(T)) {
            store<u32>(at, 0, 0);
        }
        store<T>(at, 0, value);
    }
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
    static void fill(u8* at, unset_slot /*field*/) { store<u32>(at, 0, 0); }
};

}  // namespace request_detail

template <class... Fields>
[[nodiscard, gnu::always_inline]] inline u32 scalar_request(const request_row& row, u32* call_id_out,
                                                            const Fields&... fields) {
    using request_detail::field;
    request call(row, call_id_out);
    if (!call.begin()) {
        return result::unavailable;
    }
    constexpr std::size_t saved_bytes = (std::size_t{0} + ... + field<Fields>::saved_bytes);
    constexpr std::size_t sent_bytes = (sizeof(u32) + ... + field<Fields>::slot_bytes);
    return call.finish<saved_bytes, sent_bytes>(
        [fields...](u8* at) { ((field<Fields>::save(at, fields), at += field<Fields>::saved_bytes), ...); },
        [call_id = call.call_id(), fields...](u8* at) {
            store<u32>(at, 0, call_id);
            at += sizeof(u32);
            ((field<Fields>::fill(at, fields), at += field<Fields>::slot_bytes), ...);
        });
}

// Precedes a record in its payload: the call id and 4 zero bytes.
using record_head = payload<8>;

// Sends and saves the caller's 736-byte record.
[[nodiscard]] u32 record_request(const request_row& row, const scc_config_record* record, u32* call_id_out);

}  // namespace scc
