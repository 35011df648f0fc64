// See receive.h. Runs without scc_lib_lock; a thread acts only while its registration is the current one.
#include "client/receive.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/dispatch.h"
#include "client/log.h"
#include "client/message_stream.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

namespace scc {
namespace {

// Waits up to a second for the socket. 0 when it is readable, 11 on time-out, otherwise the error.
u32 wait_readable(int fd, const char* function) {
    pollfd watched{fd, POLLIN, 0};
    const int ready = poll(&watched, 1, limits::receive_wait_ms);
    if (ready == 0) {
        return result::try_again;
    }
    u32 error = result::ok;
    if (ready < 0) {
        error = static_cast<u32>(errno);
    } else if ((watched.revents & POLLNVAL) != 0) {
        error = result::bad_descriptor;
    }
    if (error != result::ok) {
        SCC_LOG_FROM(function, "select error! errno:%d.", error);
    }
    return error;
}

// What the receive thread of one registration keeps between passes.
struct receiver {
    u32 generation;
    const delivery& how;
    message_stream stream{};
    u32 epoch = any_epoch;  // of the connection that the stream's bytes came from
    result_run results{generation};
};

// Waits for bytes of this registration's connection and reads them; fd is -1 when there is no socket.
u32 read_bytes(receiver& self, u32 epoch, i32& fd) {
    const borrowed_descriptor borrowed(channel::async, epoch);
    fd = borrowed.fd();
    if (fd < 0) {
        return result::ok;
    }
    if (epoch != self.epoch) {
        self.stream.reset();
        self.epoch = epoch;
    }
    const u32 error = wait_readable(fd, self.how.thread);
    if (error == result::try_again) {
        if (self.how.idle != nullptr) {
            self.how.idle();
        }
        return result::ok;
    }
    return error == result::ok ? self.stream.fill(fd) : error;
}

// Delivers the whole messages that have arrived, even if the connection has ended since: their calls may
// still be pending. Call ids restart with a registration, though, so the messages of an ended one are
// dropped. The stream is already past a refused message; the next one must not wait for another read, which
// may find the connection's end.
void deliver_messages(receiver& self, i32 fd) {
    const delivery_turn turn(self.generation);
    for (;;) {
        void* message = nullptr;
        const u32 refusal = self.stream.next(&message);
        if (message == nullptr) {
            if (refusal == result::ok) {
                break;
            }
            continue;
        }
        if (!is_current(self.generation)) {
            _scc_msg_free(&message);
            break;
        }
        self.how.message(fd, message, self.results);
    }
    self.results.deliver();
}

// One pass of the loop, with at most one read.
u32 receive_once(receiver& self) {
    if (scc_lib_rereg.load(relaxed) != 0) {
        SCC_LOG_FROM(self.how.thread, "appid %d ready to rereg.", app_id_now());
        return result::peer_closed;
    }
    i32 fd = -1;
    // Another registration may follow at any moment, and its bytes are not for this thread: the connection
    // is chosen before the registration is checked.
    const u32 epoch = connection_epoch();
    const u32 error = is_current(self.generation) ? read_bytes(self, epoch, fd) : result::ok;
    if (error != result::ok) {
        return error;
    }
    if (fd < 0 && is_current(self.generation)) {
        SCC_LOG_FROM(self.how.thread, "scc client async socket not created.");
        sleep(limits::missing_socket_seconds);
        // Without the other one too, TMPDIR was unusable when the connection ended; it may be usable now.
        return g_scc_client_cb.sync_fd.load(relaxed) < 0 ? result::peer_closed : result::ok;
    }
    deliver_messages(self, fd);
    return result::ok;
}

// False when the thread must end.
bool recover(u32 error, u32 generation) {
    if (!survives_unregistration(generation)) {
        return false;
    }
    if (!_scc_connect_should_reset(error)) {
        return true;
    }
    return reset_connection(generation) &&
           (_scc_lib_svr_rereg() || (is_current(generation) && app_id_now() != 0));
}

}  // namespace

void dispatch_and_free(i32 /*fd*/, void* message, result_run& results) {
    dispatch_items(load<u16>(message, 5), static_cast<u8*>(message) + wire::header_bytes, results);
    _scc_msg_free(&message);
}

void run_receive_loop(u32 generation, const delivery& how) {
    belong_to_generation(generation);
    if (!_scc_lib_svr_rereg() || !is_current(generation)) {
        SCC_LOG_FROM(how.thread, "scc client not registered to sccd.exit thread.");
        leave_generation(generation);
        return;
    }
    receiver self{generation, how};
    for (;;) {
        const u32 error = receive_once(self);
        if (!is_current(generation) || (error != result::ok && !recover(error, generation))) {
            break;
        }
    }
    leave_generation(generation);
}

}  // namespace scc

extern "C" void* _scc_lib_thread(void* generation) {
    scc::detach_and_name_with_pid();
    scc::run_receive_loop(static_cast<scc::u32>(reinterpret_cast<std::uintptr_t>(generation)),
                          {__func__, scc::dispatch_and_free, nullptr});
    return nullptr;
}
