#include "client/threads.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>

#include "client/control_block.h"

namespace scc {

u32 start_thread(thread_body body, void* argument) {
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return static_cast<u32>(error);
}

void detach_and_name(const char* name) {
    pthread_detach(pthread_self());
    prctl(PR_SET_NAME, name, 0, 0, 0);
}

void detach_and_name_with_pid() {
    char name[17];
    std::snprintf(name, sizeof name, "scclib-%d", static_cast<int>(g_scc_client_cb.pid.load(relaxed)));
    detach_and_name(name);
}

}  // namespace scc
