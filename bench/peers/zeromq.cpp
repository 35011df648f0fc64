#include <zmq.h>

#include <array>

#include "peers.h"

namespace peers {
namespace {

void* make_socket() {
    void* socket = zmq_socket(zmq_ctx_new(), ZMQ_PAIR);
    const int messages = 2 * most_outstanding;
    zmq_setsockopt(socket, ZMQ_SNDHWM, &messages, sizeof messages);
    zmq_setsockopt(socket, ZMQ_RCVHWM, &messages, sizeof messages);
    return socket;
}

void serve(const std::string& path) {
    void* socket = make_socket();
    require(zmq_bind(socket, ("ipc://" + path).c_str()) == 0, "zmq_bind");
    std::array<char, request_bytes> in{};
    std::array<char, answer_bytes> out{};
    for (;;) {
        const int got = zmq_recv(socket, in.data(), in.size(), 0);
        require(got > 0, "zmq_recv");
        zmq_send(socket, out.data(), got == query_bytes ? answer_bytes : result_bytes, 0);
    }
}

class zeromq_client : public client {
  public:
    explicit zeromq_client(const std::string& path) {
        require(zmq_connect(socket_, ("ipc://" + path).c_str()) == 0, "zmq_connect");
    }
    void stream(std::uint64_t requests) override {
        const std::array<char, request_bytes> request{};
        std::array<char, result_bytes> result{};
        std::uint64_t received = 0;
        for (std::uint64_t sent = 0; received < requests;) {
            if (sent < requests && sent - received < most_outstanding) {
                require(zmq_send(socket_, request.data(), request.size(), 0) > 0, "zmq_send");
                ++sent;
                continue;
            }
            require(zmq_recv(socket_, result.data(), result.size(), 0) > 0, "zmq_recv");
            for (++received; zmq_recv(socket_, result.data(), result.size(), ZMQ_DONTWAIT) > 0;) {
                ++received;
            }
        }
    }
    void query() override {
        const std::array<char, query_bytes> request{};
        std::array<char, answer_bytes> answer{};
        require(zmq_send(socket_, request.data(), request.size(), 0) > 0, "zmq_send");
        require(zmq_recv(socket_, answer.data(), answer.size(), 0) > 0, "zmq_recv");
    }

  private:
    void* socket_ = make_socket();
};

}  // namespace

const kind zeromq_kind{"ZeroMQ", serve, [](const std::string& path) -> std::unique_ptr<client> {
                           return std::make_unique<zeromq_client>(path);
                       }};

}  // namespace peers
