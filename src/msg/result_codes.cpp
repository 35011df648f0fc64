// The texts of the result codes. Stateless; any thread.
#include "msg/result_codes.h"

#include <array>
#include <cstring>

#include "scclib.h"

extern "C" {

// clang-format off
constinit const std::array<const char*, 21> g_scc_lib_err_str = {
    "register action rejected by scc server.",
    "unregister action rejected by scc server.",
    "register action rejected, process registed already.",
    "unregister action rejected, process unregisted already.",
    "scc service unavailable.",
    "specific acl not exist",
    "specific ace not exist",
    "msg format error",
    "specific acl not applied on specific entity",
    "specific acl already applied on specific entity",
    "specific acl already exist",
    "specific ace already exist",
    "specific acl not unapplied",
    "client do not support data query",
    "http port not exist",
    "direct host not exist",
    "direct site not exist",
    "no available ace sequence number",
    "vacl not exist",
    "black or white acl node not exist",
    "lowlayer ret timeout",
};
// clang-format on

static_assert(g_scc_lib_err_str.size() == scc::result::last_own - scc::result::first_own + 1);

const char* scc_strerror(int32_t errnum) {
    if (errnum < 0 || errnum > static_cast<int32_t>(scc::result::last_own)) {
        return "unknown errno";
    }
    const auto code = static_cast<scc::u32>(errnum);
    if (code >= scc::result::first_own) {
        return g_scc_lib_err_str[code - scc::result::first_own];
    }
    return std::strerror(errnum);
}
}
