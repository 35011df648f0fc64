// The smallest application in C++17: registers, asks for one thing, prints the answer, unregisters.
//
// C++17 has no designated initialisers, and values in the order of the members would have to name every
// handler before the last one. Empty braces set the whole record to zero, which means "no handler" and
// "default" for whatever is not assigned afterwards.
#include <scclib.h>

#include <cstdint>
#include <future>
#include <iostream>

namespace {

constexpr std::uint32_t application_id = 5;
constexpr std::uint32_t interface_number = 7;

// Each is set once. They live as long as the process, as the library's threads do.
std::promise<void>& registered() {
    static auto* const once = new std::promise<void>;
    return *once;
}

std::promise<std::uint32_t>& answered() {
    static auto* const once = new std::promise<std::uint32_t>;
    return *once;
}

// The handlers run on the library's thread, so no exception may leave them. A lambda without a capture is a
// function of the type that the record has.
scc_reg_info registration() {
    scc_reg_info info{};
    info.app_id = application_id;
    info.handlers.server_status = [](std::uint32_t status) {
        static bool first = true;
        if (status == 1 && first) {
            first = false;
            registered().set_value();
        }
    };
    info.handlers.addr_learning = [](std::uint32_t result, std::uint32_t, std::uint32_t, std::uint8_t) {
        static bool first = true;
        if (first) {
            first = false;
            answered().set_value(result);
        }
    };
    return info;
}

const char* text_of(std::uint32_t result) {
    return scc_strerror(static_cast<std::int32_t>(result));
}

}  // namespace

int main() {
    scc_reg_info info = registration();
    std::uint32_t result = scc_svr_reg(&info);
    if (result != 0) {
        std::cerr << "cannot start: " << text_of(result) << '\n';
        return 1;
    }
    registered().get_future().wait();
    std::uint32_t call_id = 0;
    result = scc_addr_learning(interface_number, 1, &call_id);
    if (result == 0) {
        result = answered().get_future().get();
        std::cout << "call " << call_id << ": address learning of interface " << interface_number << " on: ";
    }
    std::cout << text_of(result) << '\n';
    const bool unregistered = scc_svr_unreg() == 0;
    return result == 0 && unregistered ? 0 : 1;
}
