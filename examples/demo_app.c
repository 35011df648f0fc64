/* The demo's application: the life of a security application, printed line by line.
 *
 * It registers with the ACL cache on, creates ACLs, sends configuration requests of both families, waits
 * for notifications, sends a burst in which the daemon is killed, waits until it is registered again,
 * shows that requests work, and unregisters. scripts/demo.sh runs it. */
#include <inttypes.h>
#include <pthread.h>
#include <scclib.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { app_id = 5, acls = 3, aces = 4, patience_s = 30 };

/* What the handlers have seen: guarded by the lock, changes signalled by the condition. */
static struct {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    int status; /* -1 before the first */
    unsigned losses;
    uint64_t results;
    uint64_t notifications;
    uint32_t last_result;
} g_seen = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, -1, 0, 0, 0, 0};

static double now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static void say(const char* text) {
    puts(text);
    fflush(stdout);
}

static void on_status(uint32_t status) {
    pthread_mutex_lock(&g_seen.lock);
    g_seen.status = (int)status;
    g_seen.losses += status == 0;
    pthread_cond_broadcast(&g_seen.changed);
    pthread_mutex_unlock(&g_seen.lock);
    printf("  <- server status %u (%s)\n", status, status == 1 ? "registered" : "daemon lost");
    fflush(stdout);
}

static void seen_result(uint32_t result) {
    pthread_mutex_lock(&g_seen.lock);
    ++g_seen.results;
    g_seen.last_result = result;
    pthread_cond_broadcast(&g_seen.changed);
    pthread_mutex_unlock(&g_seen.lock);
}

static void seen_notification(const char* text) {
    printf("  <- %s\n", text);
    fflush(stdout);
    pthread_mutex_lock(&g_seen.lock);
    ++g_seen.notifications;
    pthread_cond_broadcast(&g_seen.changed);
    pthread_mutex_unlock(&g_seen.lock);
}

static void on_key(uint32_t result, uint32_t call_id, const struct scc_acl_key* key) {
    (void)call_id;
    (void)key;
    seen_result(result);
}

static void on_ace(uint32_t result, uint32_t call_id, const struct scc_acl_key* key,
                   const struct scc_ace_record* ace) {
    (void)call_id;
    (void)key;
    (void)ace;
    seen_result(result);
}

static void on_record(uint32_t result, uint32_t call_id, const struct scc_config_record* record) {
    (void)call_id;
    (void)record;
    seen_result(result);
}

static void on_addr_learning(uint32_t result, uint32_t call_id, uint32_t ifx, uint8_t enable) {
    (void)call_id;
    (void)ifx;
    (void)enable;
    seen_result(result);
}

static void on_station_move(uint8_t permit) {
    seen_notification(permit ? "station move permitted" : "station move denied");
}

static void on_authmode(uint32_t mode) {
    char text[64];
    snprintf(text, sizeof text, "authentication mode %u", mode);
    seen_notification(text);
}

static struct timespec deadline(void) {
    struct timespec at;
    clock_gettime(CLOCK_REALTIME, &at);
    at.tv_sec += patience_s;
    return at;
}

/* Waits until a counter reaches a value. */
static void wait_for_count(const uint64_t* counter, uint64_t wanted, const char* what) {
    struct timespec until = deadline();
    pthread_mutex_lock(&g_seen.lock);
    while (*counter < wanted) {
        if (pthread_cond_timedwait(&g_seen.changed, &g_seen.lock, &until) != 0) {
            fprintf(stderr, "demo: still waiting for %s after %d s\n", what, patience_s);
            exit(1);
        }
    }
    pthread_mutex_unlock(&g_seen.lock);
}

static void wait_for_status(int status, unsigned losses) {
    struct timespec until = deadline();
    pthread_mutex_lock(&g_seen.lock);
    while (g_seen.status != status || g_seen.losses < losses) {
        if (pthread_cond_timedwait(&g_seen.changed, &g_seen.lock, &until) != 0) {
            fprintf(stderr, "demo: no server status %d after %d s\n", status, patience_s);
            exit(1);
        }
    }
    pthread_mutex_unlock(&g_seen.lock);
}

static void require(uint32_t result, const char* what) {
    if (result != 0) {
        fprintf(stderr, "demo: %s: %s\n", what, scc_strerror((int32_t)result));
        exit(1);
    }
}

static uint64_t results_so_far(void) {
    pthread_mutex_lock(&g_seen.lock);
    uint64_t count = g_seen.results;
    pthread_mutex_unlock(&g_seen.lock);
    return count;
}

/* Waits for the results of a step and prints them. */
static void finish_step(const char* what, uint64_t before, uint64_t asked, double began) {
    wait_for_count(&g_seen.results, before + asked, what);
    printf("%-48s %5" PRIu64 " asked, %5" PRIu64 " answered, last result %u, %.1f ms\n", what, asked,
           results_so_far() - before, g_seen.last_result, now_ms() - began);
    fflush(stdout);
}

static void make_acls(void) {
    uint64_t before = results_so_far();
    double began = now_ms();
    for (uint32_t i = 0; i < acls; ++i) {
        struct scc_acl_key key = {0, 3, 101 + i, 1};
        require(scc_acl_create(&key, NULL), "create an ACL");
        for (uint32_t n = 0; n < aces; ++n) {
            struct scc_ace_record ace;
            memset(&ace, 0, sizeof ace);
            ace.sn = 10 * (aces - n);
            ace.ace_id = n + 1;
            require(scc_acl_add_ace(&key, &ace, NULL), "add an ACE");
        }
    }
    finish_step("create 3 ACLs with 4 ACEs each", before, acls * (1 + aces), began);
}

/* The cache is updated after a result's handler returns, so the last change may come a moment later. */
static void read_back(void) {
    struct scc_acl_key key = {0, 3, 101, 0};
    struct scc_list_head list;
    unsigned count = 0;
    while (count < aces) {
        require(scc_acl_get_ace(&key, &list), "read an ACL back");
        count = 0;
        for (struct scc_list_head* at = list.next; at != &list;) {
            struct scc_ace_record* ace = (struct scc_ace_record*)at;
            at = at->next;
            ++count;
            free(ace);
        }
    }
    printf("%-48s %u ACEs, no message\n", "read ACL 101 back from the cache", count);
    fflush(stdout);
}

static void configure(void) {
    uint64_t before = results_so_far();
    double began = now_ms();
    struct scc_config_record record;
    memset(&record, 0, sizeof record);
    require(scc_d1x_port_open(&record, NULL), "open a port");
    require(scc_webauth_set(&record, NULL), "configure web authentication");
    require(scc_addr_learning(7, 1, NULL), "switch address learning");
    finish_step("configure: two records, one scalar", before, 3, began);
}

/* Sends until the daemon has gone. */
static void burst(void) {
    uint64_t before = results_so_far();
    uint64_t sent = 0;
    struct scc_config_record record;
    memset(&record, 0, sizeof record);
    say("burst of requests begins");
    for (bool lost = false; !lost;) {
        for (int i = 0; i < 64; ++i) {
            sent += scc_d1x_port_open(&record, NULL) == 0;
        }
        pthread_mutex_lock(&g_seen.lock);
        lost = g_seen.status == 0;
        pthread_mutex_unlock(&g_seen.lock);
    }
    printf("%-48s %5" PRIu64 " accepted, %5" PRIu64 " answered, the rest dropped with the connection\n",
           "burst, daemon killed in the middle", sent, results_so_far() - before);
    fflush(stdout);
}

int main(void) {
    struct scc_reg_info info;
    memset(&info, 0, sizeof info);
    info.app_id = app_id;
    info.option = 1;
    info.handlers.server_status = on_status;
    info.handlers.acl_create = on_key;
    info.handlers.acl_delete = on_key;
    info.handlers.acl_add_ace = on_ace;
    info.handlers.d1x_port_open = on_record;
    info.handlers.webauth = on_record;
    info.handlers.addr_learning = on_addr_learning;
    info.handlers.station_move = on_station_move;
    info.handlers.authmode = on_authmode;

    double began = now_ms();
    require(scc_svr_reg(&info), "register");
    wait_for_status(1, 0);
    printf("%-48s %.1f ms\n", "registered as application 5", now_ms() - began);
    make_acls();
    read_back();
    configure();
    say("waiting for notifications");
    wait_for_count(&g_seen.notifications, 2, "two notifications");
    say("notifications received");
    burst();
    began = now_ms();
    wait_for_status(1, 1);
    printf("%-48s %.1f ms after the loss was told\n", "registered again", now_ms() - began);
    make_acls();
    configure();
    require(scc_svr_unreg(), "unregister");
    say("unregistered");
    return 0;
}
