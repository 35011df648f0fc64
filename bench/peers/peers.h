// Other libraries at the library's work: a stream of requests of 744 bytes, each answered by a result of 16,
// and queries of 152 bytes, answered by 36, over a Unix socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace peers {

inline constexpr std::size_t request_bytes = 744;
inline constexpr std::size_t result_bytes = 16;
inline constexpr std::size_t query_bytes = 152;
inline constexpr std::size_t answer_bytes = 36;
inline constexpr std::uint64_t most_outstanding = 4096;

class client {
  public:
    client() = default;
    virtual ~client() = default;
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    // Returns when every result has come.
    virtual void stream(std::uint64_t requests) = 0;
    virtual void query() = 0;
};

struct kind {
    const char* name;
    // Serves one client until it is killed.
    void (*serve)(const std::string& path);
    std::unique_ptr<client> (*connect)(const std::string& path);
};

extern const kind scclib_kind;
extern const kind zeromq_kind;
extern const kind nng_kind;
extern const kind sd_bus_kind;
extern const kind grpc_kind;
extern const kind capnp_kind;

// Ends the process if a call has failed.
void require(bool succeeded, const char* what);

}  // namespace peers
