#include "client/start.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "client/connection.h"
#include "client/control_block.h"
#include "client/diagnostics.h"
#include "client/log.h"
#include "msg/paths.h"
#include "msg/result_codes.h"

namespace scc {

bool is_started(u32 app_id) {
    if (!_scc_lib_client_is_connected() && client_state_now() == state_idle) {
        return false;
    }
    SCC_LOG("(app id:%d, pid:%d) already registered!", app_id, static_cast<int>(getpid()));
    return true;
}

u32 make_runtime_directory(u32 app_id) {
    path_buffer directory;
    if (!make_path(directory, runtime_directory_suffix)) {
        SCC_LOG("scclib create tmp dir error.");
        return result::io_error;
    }
    const u32 error = _scc_dir_create(directory.text);
    if (error != result::ok) {
        SCC_LOG("(app id:%d, pid:%d) mkdir failed:%s!", app_id, static_cast<int>(getpid()),
                scc_strerror(static_cast<i32>(error)));
    }
    return error;
}

// TMPDIR is the administrator's and may be a link. Below it any user may have put one, which would lead the
// change of mode elsewhere: no link is followed, and the mode is set on what was opened.
void open_runtime_directory() {
    constexpr int parent = O_PATH | O_DIRECTORY | O_CLOEXEC;
    const char* root = std::getenv("TMPDIR");
    if (root == nullptr) {
        return;
    }
    const int base = open(*root == '\0' ? "/" : root, parent);
    const int security = openat(base, "security", parent | O_NOFOLLOW);
    const int directory = openat(security, "scc", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    // Fails where another user owns the directory, who has opened it then.
    [[maybe_unused]] const int ignored = fchmod(directory, 0777);
    for (const int descriptor : {base, security, directory}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

u32 take_identity(const start_identity& identity) {
    _scc_client_state_set(state_idle);
    g_scc_client_cb.app_id.store(identity.app_id, relaxed);
    g_scc_client_cb.option.store(identity.option, relaxed);
    g_scc_client_cb.pid.store(static_cast<u32>(getpid()), relaxed);
    g_scc_client_cb.thread_mode.store(identity.thread_mode, relaxed);
    scc_lib_rereg.store(0, relaxed);
    (void)_scc_process_name_get(getpid(), g_scc_client_cb.process_name, limits::process_name_bytes);
    _scc_lib_debug_init(g_scc_client_cb.process_name);
    return begin_generation();
}

void undo_start(void (*clear_handlers)()) {
    end_generation();
    (void)_scc_lib_client_close();
    g_scc_client_cb.app_id.store(0, relaxed);
    clear_handlers();
    _scc_client_state_set(state_idle);
}

}  // namespace scc
