#include "client/start.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/descriptors.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "msg/paths.h"
#include "msg/result_codes.h"

namespace scc {

namespace {

void log_already_registered(const start_identity& identity, const char* function) {
    SCC_LOG_FROM(function, "(app id:%d, pid:%d) already registered!", identity.app_id,
                 static_cast<int>(getpid()));
}

// The process name is the same at every start; it is not rewritten while others may read it.
void take_process_name() {
    char name[record::process_name_field] = {};
    (void)_scc_process_name_get(getpid(), name, limits::process_name_bytes);
    if (std::memcmp(g_scc_client_cb.process_name, name, sizeof name) != 0) {
        std::memcpy(g_scc_client_cb.process_name, name, sizeof name);
    }
}

}  // namespace

bool is_already_started(const start_identity& identity, const char* function) {
    const bool started = is_started(identity.kind);
    if (started) {
        log_already_registered(identity, function);
    }
    return started;
}

u32 make_runtime_directory(u32 app_id, const char* function) {
    path_buffer directory;
    if (!make_path(directory, runtime_directory_suffix)) {
        SCC_LOG_FROM(function, "scclib create tmp dir error.");
        return result::io_error;
    }
    const u32 error = _scc_dir_create(directory.text);
    if (error != result::ok) {
        SCC_LOG_FROM(function, "(app id:%d, pid:%d) mkdir failed:%s!", app_id, static_cast<int>(getpid()),
                     scc_strerror(static_cast<i32>(error)));
    }
    return error;
}

// TMPDIR is the administrator's and may be a link. Below it any user may have planted one to divert the
// change of mode: no link is followed, and the mode is set on what was opened.
void open_runtime_directory() {
    constexpr int parent = O_PATH | O_DIRECTORY | O_CLOEXEC;
    path_buffer base_of_paths{};
    (void)make_path(base_of_paths, "/");  // its caller has made longer ones
    const int base = open(base_of_paths.text, parent);
    const int security = openat(base, "security", parent | O_NOFOLLOW);
    const int directory = openat(security, "scc", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    // Fails when another user owns the directory; that user's process has opened it then.
    [[maybe_unused]] const int ignored = fchmod(directory, 0777);
    for (const int descriptor : {base, security, directory}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

bool take_identity(const start_identity& identity, u32& generation, const char* function) {
    if (!claim_start(identity.kind, generation)) {
        log_already_registered(identity, function);
        return false;
    }
    g_scc_client_cb.app_id.store(identity.app_id, relaxed);
    g_scc_client_cb.option.store(identity.option, relaxed);
    g_scc_client_cb.pid.store(static_cast<u32>(getpid()), relaxed);
    g_scc_client_cb.thread_mode.store(identity.kind == start_kind::thread ? 1 : 0, relaxed);
    scc_lib_rereg.store(0, relaxed);
    take_process_name();
    _scc_lib_debug_init(g_scc_client_cb.process_name);
    return true;
}

void undo_start(void (*clear_handlers)()) {
    // The threads of this start end; no other start may begin until all is undone.
    const u32 undoing = begin_generation(start_kind::thread);
    (void)_scc_lib_client_close();
    g_scc_client_cb.app_id.store(0, relaxed);
    clear_handlers();
    leave_generation(undoing);
}

}  // namespace scc
