/* The platform's event loop, as a workstation has it (on libevent).
 *
 * A master runs tasks on the thread that calls qx_thread_master_run. A task runs once: a handler that wants
 * to run again adds a new one. Tasks may be added and cancelled from any thread. A handle is valid until its
 * handler returns or it is cancelled. Cancelling an invalid handle does nothing, and no later task gets the
 * same handle. Handles are never dereferenced. */
#ifndef QX_THREAD_H
#define QX_THREAD_H

#ifdef __cplusplus
extern "C" {
#endif

struct qx_thread_master;
struct qx_thread;

/* The return value is ignored. */
typedef int (*qx_thread_handler)(struct qx_thread* task);

/* Make a master; null if there is no memory. */
struct qx_thread_master* qx_thread_master_create(void);
/* Free a master that is not running, with all its tasks. Null is ignored. */
void qx_thread_master_free(struct qx_thread_master* master);
/* Run tasks on the calling thread until qx_thread_master_stop; 0, or -1 for a null master or a failure. */
int qx_thread_master_run(struct qx_thread_master* master);
/* Make qx_thread_master_run return after the handler that is running. Any thread. */
void qx_thread_master_stop(struct qx_thread_master* master);

/* Add a task; null if it could not be added. name must outlive the task and may be null. */

/* Run as soon as possible, in the order of adding; value is kept with the task. */
struct qx_thread* qx_thread_add_event_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, int value, const char* name);
/* Run after seconds. */
struct qx_thread* qx_thread_add_timer_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, long seconds, const char* name);
/* Run when fd is readable, before other tasks that are ready. */
struct qx_thread* qx_thread_add_read_high_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                                   void* arg, int fd, const char* name);
/* Run when fd is writable. */
struct qx_thread* qx_thread_add_write_withname(struct qx_thread_master* master, qx_thread_handler handler,
                                               void* arg, int fd, const char* name);
/* Cancel a task. It does not run any more, unless it is running on the loop's thread right now. Does not
 * wait. Any thread, and from handlers. Null is ignored. */
void qx_thread_cancel(struct qx_thread* task);

/* A handler's access to its task; null, -1 or 0 for an invalid handle. */
void* qx_thread_arg(const struct qx_thread* task);
int qx_thread_fd(const struct qx_thread* task);
int qx_thread_value(const struct qx_thread* task);
const char* qx_thread_name(const struct qx_thread* task);

#ifdef __cplusplus
}
#endif

#endif
