#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

#include <array>
#include <semaphore>
#include <thread>

#include "peers.h"

namespace peers {
namespace {

nng_socket make_socket() {
    nng_socket socket{};
    require(nng_pair0_open(&socket) == 0, "nng_pair0_open");
    nng_socket_set_int(socket, NNG_OPT_SENDBUF, most_outstanding);
    nng_socket_set_int(socket, NNG_OPT_RECVBUF, most_outstanding);
    return socket;
}

void serve(const std::string& path) {
    const nng_socket socket = make_socket();
    require(nng_listen(socket, ("ipc://" + path).c_str(), nullptr, 0) == 0, "nng_listen");
    std::array<char, request_bytes> in{};
    std::array<char, answer_bytes> out{};
    for (;;) {
        std::size_t got = in.size();
        require(nng_recv(socket, in.data(), &got, 0) == 0, "nng_recv");
        nng_send(socket, out.data(), got == query_bytes ? answer_bytes : result_bytes, 0);
    }
}

class nng_client : public client {
  public:
    explicit nng_client(const std::string& path) {
        require(nng_dial(socket_, ("ipc://" + path).c_str(), nullptr, 0) == 0, "nng_dial");
    }
    void stream(std::uint64_t requests) override {
        std::counting_semaphore<> free_places(most_outstanding);
        std::thread receiving([&] {
            for (std::uint64_t i = 0; i < requests; ++i) {
                receive<result_bytes>();
                free_places.release();
            }
        });
        std::array<char, request_bytes> request{};
        for (std::uint64_t i = 0; i < requests; ++i) {
            free_places.acquire();
            require(nng_send(socket_, request.data(), request.size(), 0) == 0, "nng_send");
        }
        receiving.join();
    }
    void query() override {
        std::array<char, query_bytes> request{};
        require(nng_send(socket_, request.data(), request.size(), 0) == 0, "nng_send");
        receive<answer_bytes>();
    }

  private:
    template <std::size_t Size>
    void receive() {
        std::array<char, Size> bytes{};
        std::size_t got = bytes.size();
        require(nng_recv(socket_, bytes.data(), &got, 0) == 0, "nng_recv");
    }

    nng_socket socket_ = make_socket();
};

}  // namespace

const kind nng_kind{"nng", serve, [](const std::string& path) -> std::unique_ptr<client> {
                        return std::make_unique<nng_client>(path);
                    }};

}  // namespace peers
