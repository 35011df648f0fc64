// Calls whose results arrive, and what became of them.
#pragma once

#include "client/acl_cache.h"
#include "client/client_data.h"
#include "client/diagnostics.h"
#include "client/handler_recorder.h"
#include "client/pending_calls.h"
#include "client/results.h"
#include "support/log_capture.h"

namespace test {

inline bytes key_bytes(std::uint32_t acl_id) {
    return wire().u32(1).u32(2).u32(acl_id).u32(4);
}

class Results : public ::testing::Test {
  protected:
    Results() {
        _scc_lib_data_init();
        use_handlers(recording_handlers());
    }
    ~Results() override { _scc_lib_data_free(); }

    // The saved bytes are read from an odd address, since saved data is packed.
    static void save(std::uint32_t call_id, std::uint32_t kind, const bytes& data) {
        bytes shifted = wire().u8(0).add(data);
        ASSERT_EQ(_scc_lib_save_call_data(call_id, kind, shifted.data() + 1, static_cast<int>(data.size())),
                  0U);
    }

    static void deliver(std::uint32_t call_id, std::uint32_t result) {
        const bytes value = wire().u32(call_id).u32(result);
        _scc_lib_call_ret_proc(value.data());
    }

    static std::size_t held_acls() {
        const scc::write_guard guard(scc::acl_lock);
        return scc::cached_acl_count();
    }

    // Index and {callback successes, callback failures} of every entry that is not all zero. Calls are
    // counted by the request, never here.
    static std::vector<std::vector<std::uint32_t>> counted() {
        std::vector<std::vector<std::uint32_t>> rows;
        for (std::uint32_t i = 0; i < 13; ++i) {
            const scc::call_statistics entry = scc::read_statistics(i);
            EXPECT_EQ(entry.calls + entry.call_successes + entry.call_failures, 0U);
            if (entry.callback_successes + entry.callback_failures != 0) {
                rows.push_back({i, entry.callback_successes, entry.callback_failures});
            }
        }
        _scc_lib_func_stat_reset();
        return rows;
    }
};

}  // namespace test
