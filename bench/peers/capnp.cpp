#include <capnp/ez-rpc.h>
#include <kj/async.h>

#include <array>

#include "peer.capnp.h"
#include "peers.h"

namespace peers {
namespace {

class server final : public Peer::Server {
  protected:
    kj::Promise<void> request(RequestContext context) override {
        context.getResults().initResult(result_bytes);
        return kj::READY_NOW;
    }
    kj::Promise<void> query(QueryContext context) override {
        context.getResults().initAnswer(answer_bytes);
        return kj::READY_NOW;
    }
};

void serve(const std::string& path) {
    ::capnp::EzRpcServer listening(kj::heap<server>(), "unix:" + path);
    kj::NEVER_DONE.wait(listening.getWaitScope());
}

class capnp_client : public client {
  public:
    ~capnp_client() noexcept override = default;  // its members may throw, which would end the process
    explicit capnp_client(const std::string& path) : rpc_("unix:" + path), peer_(rpc_.getMain<Peer>()) {}
    void stream(std::uint64_t requests) override {
        constexpr std::uint64_t groups = 16;
        constexpr std::uint64_t group = most_outstanding / groups;
        std::array<kj::Promise<void>, groups> outstanding =
            make_ready<groups>(std::make_index_sequence<groups>{});
        for (std::uint64_t sent = 0, i = 0; sent < requests; sent += group, i = (i + 1) % groups) {
            outstanding[i].wait(rpc_.getWaitScope());
            outstanding[i] = send_group(group);
        }
        for (kj::Promise<void>& one : outstanding) {
            one.wait(rpc_.getWaitScope());
        }
    }
    void query() override {
        auto call = peer_.queryRequest();
        call.initValue(query_bytes);
        call.send().wait(rpc_.getWaitScope());
    }

  private:
    template <std::size_t Count, std::size_t... I>
    static std::array<kj::Promise<void>, Count> make_ready(std::index_sequence<I...> /*places*/) {
        return {((void)I, kj::Promise<void>(kj::READY_NOW))...};
    }
    kj::Promise<void> send_group(std::uint64_t count) {
        auto results = kj::heapArrayBuilder<kj::Promise<void>>(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            auto call = peer_.requestRequest();
            call.initValue(request_bytes);
            results.add(call.send().ignoreResult());
        }
        return kj::joinPromises(results.finish());
    }

    ::capnp::EzRpcClient rpc_;
    Peer::Client peer_;
};

}  // namespace

const kind capnp_kind{"Cap'n Proto", serve, [](const std::string& path) -> std::unique_ptr<client> {
                          return std::make_unique<capnp_client>(path);
                      }};

}  // namespace peers
