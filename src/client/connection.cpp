// See connection.h.
//
//   registration request (301), 12 bytes: u32 app id, u32 pid, u8 option, u8 socket (1 sync, 0 async), 2 zero
//   registration reply: u32 not examined, u32 result, u32 pid of the app id's holder
//   unregistration request (302), 4 bytes: u32 app id;  reply: u32 not examined, u32 result
#include "client/connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "client/client_data.h"
#include "client/connection_scope.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/exchange.h"
#include "client/handlers.h"
#include "client/log.h"
#include "client/service_statistics.h"
#include "msg/bytes.h"
#include "msg/message.h"
#include "msg/paths.h"
#include "msg/result_codes.h"

using namespace scc;

namespace scc {
namespace {

static_assert(sizeof(sockaddr_un::sun_path) == limits::path_bytes);

constexpr const char* connect_function = "_scc_lib_client_connect";
constexpr const char* register_function = "_scc_lib_svr_rereg";

// Logs the reason, closes, and returns the negative error number.
int give_up(int fd, const char* text) {
    const int error = errno;
    SCC_LOG_FROM(connect_function, "%s", text);
    SCC_LOG_FROM(connect_function, "reason:%s", std::strerror(error));
    if (fd >= 0) {
        close(fd);
    }
    return -error;
}

socklen_t address_length(const sockaddr_un& address) {
    return static_cast<socklen_t>(std::strlen(address.sun_path) + offsetof(sockaddr_un, sun_path));
}

// The client's own address; removes the stale file of an earlier process.
bool own_address(const char* prefix, sockaddr_un& address) {
    address.sun_family = AF_UNIX;
    const int length = std::snprintf(address.sun_path, sizeof address.sun_path, "%s%d", prefix, pid_now());
    if (length >= static_cast<int>(sizeof address.sun_path)) {
        SCC_LOG_FROM(connect_function, "client socket path is too long: %s%d", prefix, pid_now());
        return false;
    }
    unlink(address.sun_path);
    return true;
}

bool daemon_address(sockaddr_un& address) {
    address.sun_family = AF_UNIX;
    return scc_make_path(address.sun_path, daemon_socket_suffix, sizeof address.sun_path,
                         static_cast<int>(path_base::runtime)) == 1;
}

int set_send_timeout(int fd) {
    const timeval timeout{limits::send_timeout_seconds, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) == 0) {
        return fd;
    }
    const int error = errno;
    SCC_LOG_FROM(connect_function, "setsockopt fail errno=%d error(%s).", error, std::strerror(error));
    close(fd);
    return -error;
}

struct socket_prefixes {
    path_buffer sync;
    path_buffer async;
};

bool make_prefixes(socket_prefixes& out, const char* function) {
    if (make_path(out.sync, sync_socket_suffix) && make_path(out.async, async_socket_suffix)) {
        return true;
    }
    SCC_LOG_FROM(function, "TMPDIR is unset, or too long for a socket path.");
    return false;
}

// In a host without standard streams no socket may take one of their numbers; and descriptor 0 is never
// closed.
int open_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

u32 connect_channel(channel which, const path_buffer& prefix, u32 generation) {
    const std::atomic<i32>& slot =
        which == channel::sync ? g_scc_client_cb.sync_fd : g_scc_client_cb.async_fd;
    if (slot.load(relaxed) >= 0) {
        return result::ok;
    }
    const int fd = _scc_lib_client_connect(prefix.text);
    if (fd < 0) {
        return static_cast<u32>(-fd);
    }
    return install_descriptor(which, fd, generation) ? result::ok : result::bad_descriptor;
}

u32 register_both(const registration_identity& identity) {
    const u32 error = _scc_lib_client_reg(1, &identity);
    return error != result::ok ? error : _scc_lib_client_reg(0, &identity);
}

// A word of the reply's value, or 0 past its end: a refusal may omit the holder's pid.
u32 reply_word(const exchange& reply, std::size_t offset) {
    return offset + sizeof(u32) <= reply.value().size() ? load<u32>(reply.value().data(), offset) : 0;
}

bool has_result(const exchange& reply) {
    return reply.value().size() >= 8;
}

}  // namespace

registration_identity identity_of_control_block() {
    return {app_id_now(), g_scc_client_cb.option.load(relaxed)};
}

bool can_form_socket_paths(const char* function) {
    socket_prefixes prefixes;
    return make_prefixes(prefixes, function);
}

u32 connect_and_register(const registration_identity& identity, u32 generation, const char* function) {
    socket_prefixes prefixes;
    if (!make_prefixes(prefixes, function)) {
        return result::io_error;
    }
    const u32 epoch = epoch_of(generation);
    if (!set_state_of(generation, state_connecting)) {
        return result::bad_descriptor;
    }
    const connection_scope scope(epoch);
    u32 error = connect_channel(channel::sync, prefixes.sync, generation);
    if (error == result::ok) {
        error = connect_channel(channel::async, prefixes.async, generation);
    }
    if (error != result::ok) {
        return error;
    }
    SCC_LOG_FROM(function, "(app id:%d, pid:%d)connect to sccd success!", app_id_now(), pid_now());
    return set_state_of(generation, state_registering) ? register_both(identity) : result::bad_descriptor;
}

u32 unregister_client(const char* function) {
    u32 app_id = 0;
    if (!begin_unregistration(app_id)) {
        SCC_LOG_FROM(function, "(pid:%d) already unregistered or not registered!", pid_now());
        return result::ok;
    }
    const i32 fd = g_scc_client_cb.sync_fd.load(relaxed);
    const u32 error = fd > 0 ? _scc_client_unreg(fd, app_id, 1) : result::ok;
    if (error != result::ok) {
        SCC_LOG_FROM(function, "(app id:%d, pid:%d)unregistered error!", app_id, pid_now());
        take_unregistration_back(app_id);
        return error;
    }
    end_generation();
    _scc_client_state_set(state_idle);
    g_scc_client_cb.last_call_id.store(0, relaxed);
    _scc_lib_handler_clear();
    g_scc_client_cb.option.store(0, relaxed);
    if (const agent_hooks* agent = active_agent_hooks(); agent != nullptr) {
        agent->cancel_tasks();
    }
    (void)close_descriptors();
    _scc_lib_data_free();
    end_unregistration();
    SCC_LOG_FROM(function, "(app id:%d, pid:%d) unregister to sccd success!", app_id, pid_now());
    return result::ok;
}

}  // namespace scc

extern "C" {

int _scc_lib_client_connect(const char* prefix) {
    sockaddr_un own{};
    if (!own_address(prefix, own)) {
        return -1;
    }
    const int fd = open_socket();
    if (fd < 0) {
        return give_up(fd, "create socket error!!!");
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&own), address_length(own)) != 0) {
        return give_up(fd, "bind socket error!!!");
    }
    sockaddr_un daemon{};
    if (!daemon_address(daemon)) {
        close(fd);
        return -1;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&daemon), address_length(daemon)) != 0) {
        return give_up(fd, "connect to sccd failed!!!");
    }
    return set_send_timeout(fd);
}

bool _scc_lib_svr_rereg() {
    const u32 generation = generation_of_this_thread();
    if (!can_form_socket_paths(register_function)) {
        return false;
    }
    if (client_state_now() != state_idle) {
        SCC_LOG_FROM(register_function, "scc client start to try re-reg.");
        notify_status(0, generation);
    }
    while (connect_and_register(identity_of_control_block(), generation, register_function) != result::ok) {
        if (!reset_connection(generation) || app_id_now() == 0) {
            return false;
        }
        sleep(limits::retry_seconds);
    }
    scc_lib_rereg.store(0, relaxed);
    if (!set_state_of(generation, state_registered)) {
        return false;
    }
    SCC_LOG_FROM(register_function, "(app id:%d, pid:%d)register to sccd success!", app_id_now(), pid_now());
    _scc_lib_func_stat_reset();
    reset_service_statistics();
    notify_status(1, generation);
    return true;
}

void _scc_lib_svr_status_notify(u32 status) {
    notify_status(status, current_generation());
}

int _scc_lib_client_close() {
    return close_descriptors();
}

u32 _scc_lib_client_reg(int sync, const registration_identity* identity) {
    u8 request[12] = {};
    store<u32>(request, 0, identity->app_id);
    store<u32>(request, 4, static_cast<u32>(pid_now()));
    store<u8>(request, 8, identity->option);
    store<u8>(request, 9, static_cast<u8>(sync));
    exchange talk(channel_of(sync));
    if (const u32 error = talk.send(msg::registration, request).error; error != result::ok) {
        return error;
    }
    if (const u32 error = talk.receive(); error != result::ok) {
        return error;
    }
    if (!has_result(talk)) {
        return result::format;
    }
    const u32 refusal = reply_word(talk, 4);
    if (refusal != result::ok) {
        SCC_LOG("(app id:%d, pid:%d)reg action rejected by sccd!", identity->app_id, pid_now());
        if (const u32 holder = reply_word(talk, 8); holder != 0) {
            SCC_LOG("app id:%d already registered by pid:%d!", identity->app_id, holder);
        }
    }
    return refusal;
}

// A daemon that has ended has unregistered all clients: a dead connection counts as its agreement.
u32 _scc_client_unreg(int /*fd*/, u32 app_id, int sync) {
    exchange talk(channel_of(sync));
    const send_outcome sent = talk.send(msg::unregistration, bytes_of(app_id));
    const u32 error = sent.error != result::ok ? sent.error : talk.receive();
    if (_scc_connect_should_reset(error)) {
        _scc_lib_data_free();
        return result::ok;
    }
    if (sent.in_part) {
        shut_down_connection(talk.epoch());
    }
    if (error != result::ok) {
        return error;
    }
    if (!has_result(talk)) {
        return result::format;
    }
    if (reply_word(talk, 4) == 0) {
        return result::ok;
    }
    SCC_LOG("(app id:%d, pid:%d)unreg action rejected by sccd!", app_id, pid_now());
    return result::unregister_rejected;
}
}
