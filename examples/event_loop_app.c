/* An application with its own event loop: the library connects, reads and recovers in tasks on that loop,
 * next to the application's timer and pipe.
 *
 *   event_loop_app [results [app id]]
 *
 * Sends a request once a second, prints its result, and ends after that many results (3; 0 means never)
 * or at SIGINT or SIGTERM. Restart the daemon while it runs: it prints each loss and registration. */
#include <qx_thread.h>
#include <scclib.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { request_interval_seconds = 1 };

static struct qx_thread_master* g_master;
static int g_signal_pipe[2];
static unsigned long g_results_wanted = 3;
static unsigned long g_results_seen;
static uint32_t g_next_interface = 1;

/* ---- the library's handlers, on this loop's thread */

static void on_status(uint32_t status) {
    printf("daemon: %s\n", status == 1 ? "registered" : "lost");
}

static void on_connect(void) {
    printf("connected: requests may go out\n");
}

static void on_addr_learning(uint32_t result, uint32_t call_id, uint32_t ifx, uint8_t enable) {
    printf("call %u: address learning of interface %u %s: %s\n", call_id, ifx, enable ? "on" : "off",
           scc_strerror((int32_t)result));
    if (++g_results_seen == g_results_wanted) {
        qx_thread_master_stop(g_master);
    }
}

static void on_authmode(uint32_t mode) {
    printf("notification: authentication mode %u\n", mode);
}

/* ---- the application's own tasks */

static void request_later(void);

static int on_timer(struct qx_thread* task) {
    (void)task;
    uint32_t call_id = 0;
    uint32_t result = scc_addr_learning(g_next_interface, 1, &call_id);
    if (result == 0) {
        printf("call %u sent\n", call_id);
        g_next_interface++;
    } else {
        printf("request refused: %s\n", scc_strerror((int32_t)result));
    }
    request_later();
    return 0;
}

/* A task runs once and has to be added again. */
static void request_later(void) {
    if (qx_thread_add_timer_withname(g_master, on_timer, NULL, request_interval_seconds, "app-request") ==
        NULL) {
        fprintf(stderr, "cannot add the request timer\n");
        qx_thread_master_stop(g_master);
    }
}

static int on_signal_byte(struct qx_thread* task) {
    unsigned char number = 0;
    if (read(qx_thread_fd(task), &number, 1) == 1) {
        printf("signal %u\n", number);
    }
    qx_thread_master_stop(g_master);
    return 0;
}

/* Only async-signal-safe calls are allowed here, so the number goes to the loop through the pipe. */
static void on_signal(int number) {
    unsigned char byte = (unsigned char)number;
    ssize_t ignored = write(g_signal_pipe[1], &byte, 1);
    (void)ignored;
}

static int add_own_tasks(void) {
    if (pipe(g_signal_pipe) != 0) {
        return -1;
    }
    struct sigaction action = {.sa_handler = on_signal, .sa_flags = SA_RESTART};
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    request_later();
    return qx_thread_add_read_high_withname(g_master, on_signal_byte, NULL, g_signal_pipe[0], "app-signal") !=
                   NULL
               ? 0
               : -1;
}

static uint32_t register_with(uint32_t app_id) {
    struct scc_reg_info info = {
        .app_id = app_id,
        .handlers = {.server_status = on_status, .addr_learning = on_addr_learning, .authmode = on_authmode}};
    scc_agent_set_connect_callback(on_connect);
    return scc_agent_init(&info, g_master);
}

int main(int argc, char** argv) {
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (argc > 1) {
        g_results_wanted = strtoul(argv[1], NULL, 10);
    }
    uint32_t app_id = argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 10) : 6;
    g_master = qx_thread_master_create();
    if (g_master == NULL || add_own_tasks() != 0) {
        fprintf(stderr, "cannot make the event loop\n");
        return 1;
    }
    uint32_t result = register_with(app_id);
    if (result != 0) {
        fprintf(stderr, "cannot start: %s\n", scc_strerror((int32_t)result));
        return 1;
    }
    int outcome = qx_thread_master_run(g_master);
    result = scc_agent_finish();
    printf("finished after %lu results: %s\n", g_results_seen, scc_strerror((int32_t)result));
    /* The master stays: the library keeps it for the life of the process. */
    return outcome == 0 && result == 0 ? 0 : 1;
}
