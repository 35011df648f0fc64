// See receive.h. Runs without scc_lib_lock; a thread acts only while its registration is the current one.
#include "client/receive.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/dispatch.h"
#include "client/log.h"
#include "client/request_channel.h"
#include "client/threads.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/result_codes.h"

namespace scc {
namespace {

u32 app_id_now() {
    return g_scc_client_cb.app_id.load(relaxed);
}

// Waits up to a second for the socket. 0 ready; 11 nothing came; otherwise the error.
u32 wait_readable(int fd) {
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
        SCC_LOG("select error! errno:%d.", error);
    }
    return error;
}

u32 receive_on(u32 epoch, void** message) {
    const connection_scope scope(epoch);
    return _scc_lib_msg_recv(message, 0);
}

// One pass: at most one message. The result is the pass's error. The wait and the read are of one
// connection: a thread whose registration ends between them must not read the next registration's reply.
u32 receive_once(u32 generation, deliver_message deliver) {
    const u32 epoch = epoch_of(generation);
    if (epoch == any_epoch) {
        return result::ok;  // the caller leaves
    }
    if (scc_lib_rereg.load(relaxed) != 0) {
        SCC_LOG("appid %d ready to rereg.", app_id_now());
        return result::peer_closed;
    }
    void* message = nullptr;
    i32 fd = -1;
    {
        const borrowed_descriptor borrowed(channel::async, epoch);
        fd = borrowed.fd();
        if (fd >= 0) {
            const u32 error = wait_readable(fd);
            if (error != result::ok) {
                return error == result::try_again ? result::ok : error;
            }
        }
    }
    if (fd < 0) {
        SCC_LOG("scc client async socket not created.");
        sleep(limits::missing_socket_seconds);
        return result::ok;
    }
    const u32 error = receive_on(epoch, &message);
    if (error == result::ok && message != nullptr) {
        deliver(fd, message);
    }
    return error;
}

// What follows an error; false when the thread has to leave.
bool recover(u32 error, u32 generation) {
    if (!survives_unregistration(generation)) {
        return false;
    }
    if (!_scc_connect_should_reset(error)) {
        return true;
    }
    if (!reset_connection(generation)) {
        return false;
    }
    register_until_done(generation);
    return survives_unregistration(generation) && client_state_now() == state_registered;
}

}  // namespace

void dispatch_and_free(i32 /*fd*/, void* message) {
    _scc_lib_async_msg_proc(load<u16>(message, 5), static_cast<u8*>(message) + wire::header_bytes);
    _scc_msg_free(&message);
}

void run_receive_loop(u32 generation, deliver_message deliver) {
    register_until_done(generation);
    if (!is_current(generation) || client_state_now() != state_registered) {
        SCC_LOG("scc client not registered to sccd.exit thread.");
        return;
    }
    for (;;) {
        const u32 error = receive_once(generation, deliver);
        if (!is_current(generation) || (error != result::ok && !recover(error, generation))) {
            break;
        }
    }
    if (is_current(generation)) {
        _scc_client_state_set(state_idle);
    }
}

}  // namespace scc

extern "C" void* _scc_lib_thread(void* generation) {
    scc::detach_and_name_with_pid();
    scc::run_receive_loop(static_cast<scc::u32>(reinterpret_cast<std::uintptr_t>(generation)),
                          scc::dispatch_and_free);
    return nullptr;
}
