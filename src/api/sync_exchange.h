// The engine of synchronous queries: one request and one reply on the synchronous socket. Any thread, with
// scc_lib_lock held (locked_call). A reply too short for a field that the call reads is malformed.
#pragma once

#include <span>

#include "api/request.h"
#include "client/exchange.h"

namespace scc {

struct exchange_row {
    u16 request_type;
    u16 reply_type;
    const char* reply_name;  // for the log line of an unexpected reply
};

class sync_exchange {
  public:
    // Constructed in the exported call, whose name the log lines carry.
    explicit sync_exchange(const char* function = __builtin_FUNCTION())
        : function_(function), exchange_(channel::sync) {}

    // On an error no reply will come.
    [[nodiscard]] u32 send(const exchange_row& row, std::span<const u8> payload);
    [[nodiscard]] u32 receive(const exchange_row& row);
    [[nodiscard]] u32 query(const exchange_row& row, std::span<const u8> payload);

    // Reads a field of the reply's first item; false when the item is too short.
    template <class T>
    [[nodiscard]] bool read(std::size_t offset, T& out) const {
        if (offset + sizeof(T) > value().size()) {
            return false;
        }
        out = load<T>(value().data(), offset);
        return true;
    }

    [[nodiscard]] std::span<const u8> value() const { return exchange_.value(); }
    // Whether a complete reply arrived, of any type.
    [[nodiscard]] bool has_reply() const { return exchange_.has_reply(); }

  private:
    const char* function_;
    exchange exchange_;
};

}  // namespace scc
