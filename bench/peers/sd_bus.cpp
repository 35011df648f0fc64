// A connection between two processes, without a message broker.
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>

#include "peers.h"

namespace peers {
namespace {

constexpr const char* object = "/peer";
constexpr const char* interface = "com.example.Peer";

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

sd_bus* open_bus(int fd, bool is_server) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fd, fd) >= 0, "sd_bus_set_fd");
    if (is_server) {
        sd_id128_t id{};
        require(sd_id128_randomize(&id) >= 0 && sd_bus_set_server(bus, 1, id) >= 0, "sd_bus_set_server");
    }
    require(sd_bus_set_anonymous(bus, 1) >= 0 && sd_bus_start(bus) >= 0, "sd_bus_start");
    return bus;
}

template <std::size_t Bytes>
int answer(sd_bus_message* request, void* /*data*/, sd_bus_error* /*error*/) {
    const void* value = nullptr;
    std::size_t size = 0;
    require(sd_bus_message_read_array(request, 'y', &value, &size) >= 0, "sd_bus_message_read_array");
    sd_bus_message* reply = nullptr;
    require(sd_bus_message_new_method_return(request, &reply) >= 0, "sd_bus_message_new_method_return");
    const std::array<char, Bytes> out{};
    sd_bus_message_append_array(reply, 'y', out.data(), out.size());
    sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return 1;
}

const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Request", "ay", "ay", answer<result_bytes>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Query", "ay", "ay", answer<answer_bytes>, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

void process(sd_bus* bus) {
    const int done = sd_bus_process(bus, nullptr);
    require(done >= 0, "sd_bus_process");
    if (done == 0) {
        sd_bus_wait(bus, UINT64_MAX);
    }
}

void serve(const std::string& path) {
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = address_of(path);
    require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                listen(listener, 1) == 0,
            "listen");
    sd_bus* bus = open_bus(accept(listener, nullptr, nullptr), true);
    require(sd_bus_add_object_vtable(bus, nullptr, object, interface, methods, nullptr) >= 0,
            "sd_bus_add_object_vtable");
    for (;;) {
        process(bus);
    }
}

class sd_bus_client : public client {
  public:
    explicit sd_bus_client(const std::string& path) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un address = address_of(path);
        require(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
        bus_ = open_bus(fd, false);
    }
    void stream(std::uint64_t requests) override {
        received_ = 0;
        for (std::uint64_t sent = 0; received_ < requests;) {
            if (sent < requests && sent - received_ < most_outstanding) {
                sd_bus_message* call = make_call<request_bytes>("Request");
                require(sd_bus_call_async(bus_, nullptr, call, on_result, this, UINT64_MAX) >= 0,
                        "sd_bus_call_async");
                sd_bus_message_unref(call);
                ++sent;
            } else {
                process(bus_);
            }
        }
    }
    void query() override {
        sd_bus_message* call = make_call<query_bytes>("Query");
        sd_bus_message* reply = nullptr;
        require(sd_bus_call(bus_, call, UINT64_MAX, nullptr, &reply) >= 0, "sd_bus_call");
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
    }

  private:
    template <std::size_t Bytes>
    sd_bus_message* make_call(const char* method) {
        sd_bus_message* call = nullptr;
        require(sd_bus_message_new_method_call(bus_, &call, nullptr, object, interface, method) >= 0,
                "sd_bus_message_new_method_call");
        const std::array<char, Bytes> value{};
        sd_bus_message_append_array(call, 'y', value.data(), value.size());
        return call;
    }
    static int on_result(sd_bus_message* /*reply*/, void* self, sd_bus_error* /*error*/) {
        ++static_cast<sd_bus_client*>(self)->received_;
        return 1;
    }

    sd_bus* bus_ = nullptr;
    std::uint64_t received_ = 0;
};

}  // namespace

const kind sd_bus_kind{"sd-bus", serve, [](const std::string& path) -> std::unique_ptr<client> {
                           return std::make_unique<sd_bus_client>(path);
                       }};

}  // namespace peers
