/* The smallest application: registers, asks for one thing, prints the answer, unregisters. */
#include <scclib.h>
#include <semaphore.h>
#include <stdio.h>

static sem_t g_registered;
static sem_t g_answered;

static void on_status(uint32_t status) {
    printf("daemon: %s\n", status == 1 ? "registered" : "lost");
    if (status == 1) {
        sem_post(&g_registered);
    }
}

static void on_addr_learning(uint32_t result, uint32_t call_id, uint32_t ifx, uint8_t enable) {
    printf("call %u: address learning of interface %u %s: %s\n", call_id, ifx, enable ? "on" : "off",
           scc_strerror((int32_t)result));
    sem_post(&g_answered);
}

int main(void) {
    sem_init(&g_registered, 0, 0);
    sem_init(&g_answered, 0, 0);
    struct scc_reg_info info = {.app_id = 5,
                                .handlers = {.server_status = on_status, .addr_learning = on_addr_learning}};
    uint32_t result = scc_svr_reg(&info);
    if (result != 0) {
        fprintf(stderr, "cannot start: %s\n", scc_strerror((int32_t)result));
        return 1;
    }
    sem_wait(&g_registered);
    uint32_t call_id = 0;
    result = scc_addr_learning(7, 1, &call_id);
    if (result == 0) {
        printf("call %u sent\n", call_id);
        sem_wait(&g_answered);
    } else {
        printf("request refused: %s\n", scc_strerror((int32_t)result));
    }
    return scc_svr_unreg() == 0 ? 0 : 1;
}
