/*
 * Creates an ACL with one ACE and applies it to an interface, in C:
 *
 *     add_ace 101 5 "permit tcp 10.0.0.0/8 any eq 443"
 *
 * The contents of the ACE are those that sccd-dev and scc-ss-dev understand (scc_records.h).
 */
#include <pthread.h>
#include <scc_records.h>
#include <scclib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define APP_ID 7
#define WAIT_SECONDS 5

/* The handlers run on the library's thread. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int registered;
static unsigned answers;
static uint32_t first_failure;

static void on_status(uint32_t status) {
    pthread_mutex_lock(&lock);
    registered = status == 1;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
}

static void on_answer(const char* what, uint32_t result) {
    printf("%s: %s\n", what, scc_strerror((int32_t)result));
    pthread_mutex_lock(&lock);
    ++answers;
    if (first_failure == 0) {
        first_failure = result;
    }
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
}

static void on_create(uint32_t result, uint32_t call_id, const struct scc_acl_key* key) {
    (void)call_id;
    (void)key;
    on_answer("create", result);
}

static void on_add_ace(uint32_t result, uint32_t call_id, const struct scc_acl_key* key,
                       const struct scc_ace_record* ace) {
    (void)call_id;
    (void)key;
    (void)ace;
    on_answer("add ACE", result);
}

static void on_apply(uint32_t result, uint32_t call_id, const struct scc_acl_apply_record* record) {
    (void)call_id;
    (void)record;
    on_answer("apply", result);
}

/* Waits until the application is registered and `count` answers have arrived. Returns 0, or 1 after a while.
 */
static int wait_for(unsigned count) {
    struct timespec until;
    timespec_get(&until, TIME_UTC);
    until.tv_sec += WAIT_SECONDS;
    int late = 0;
    pthread_mutex_lock(&lock);
    while (!late && (!registered || answers < count)) {
        late = pthread_cond_timedwait(&changed, &lock, &until) != 0;
    }
    pthread_mutex_unlock(&lock);
    return late;
}

/* Returns 0 if the daemon confirmed each step. */
static int add(const struct scc_acl_key* key, const struct scc_ace_record* ace,
               struct scc_acl_apply_record* where) {
    if (scc_acl_create(key, NULL) != 0 || scc_acl_add_ace(key, ace, NULL) != 0 ||
        scc_acl_apply(where, NULL) != 0) {
        return 1;
    }
    return wait_for(3) != 0 || first_failure != 0;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: add_ace ACL IFX RULE\n");
        return 2;
    }
    struct scc_ace_record ace;
    struct scc_records_error error;
    if (scc_ace_parse(argv[3], &ace, &error) != 0) {
        fprintf(stderr, "add_ace: rule, byte %u: %s\n", (unsigned)error.offset, error.text);
        return 2;
    }
    struct scc_records_application application;
    memset(&application, 0, sizeof application);
    application.key.app_type = 1;
    application.key.acl_id = (uint32_t)strtoul(argv[1], NULL, 10);
    application.ifx = (uint32_t)strtoul(argv[2], NULL, 10);
    struct scc_acl_apply_record where;
    if (scc_records_encode_application(&application, &where, &error) != 0) {
        fprintf(stderr, "add_ace: %s\n", error.text);
        return 2;
    }

    struct scc_handlers handlers;
    memset(&handlers, 0, sizeof handlers);
    handlers.server_status = on_status;
    handlers.acl_create = on_create;
    handlers.acl_add_ace = on_add_ace;
    handlers.acl_apply = on_apply;
    struct scc_reg_info info;
    memset(&info, 0, sizeof info);
    info.app_id = APP_ID;
    info.handlers = handlers;
    const uint32_t result = scc_svr_reg(&info);
    if (result != 0) {
        fprintf(stderr, "add_ace: cannot start: %s\n", scc_strerror((int32_t)result));
        return 1;
    }
    if (wait_for(0) != 0) {
        fprintf(stderr, "add_ace: no daemon answers\n");
        return 1;
    }
    const int failed = add(&where.key, &ace, &where);
    scc_svr_unreg();
    return failed;
}
