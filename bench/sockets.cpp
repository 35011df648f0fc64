#include "sockets.h"

#include <sys/socket.h>
#include <unistd.h>

namespace bench {

void send_all(int fd, const scc::u8* bytes, std::size_t length) {
    while (length > 0) {
        const ssize_t sent = send(fd, bytes, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            _exit(1);
        }
        bytes += sent;
        length -= static_cast<std::size_t>(sent);
    }
}

void receive_exactly(int fd, scc::u8* bytes, std::size_t length) {
    while (length > 0) {
        const ssize_t got = recv(fd, bytes, length, 0);
        if (got <= 0) {
            _exit(1);
        }
        bytes += got;
        length -= static_cast<std::size_t>(got);
    }
}

}  // namespace bench
