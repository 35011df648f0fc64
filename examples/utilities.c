/* The functions that need no daemon: addresses as text, paths, identity and the timing probes. */
#include <arpa/inet.h>
#include <scclib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Each function has its own buffer, so one line may show an address and a mask, but not two masks. */
static void show_addresses(void) {
    const uint32_t address = htonl(ip_set(192, 168, 1, 10));
    const uint32_t mask = htonl(ip_set(255, 255, 255, 0));
    const uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    printf("IPv4 %s, mask %s (%d bits), MAC %s\n", ip_show(address), mask_show(mask), mask_count(mask),
           mac_show(mac));
    struct in6_addr address6;
    struct in6_addr mask6;
    inet_pton(AF_INET6, "2001:db8::1", &address6);
    inet_pton(AF_INET6, "ffff:ffff::", &mask6);
    printf("IPv6 %s, mask %s\n", ipv6_show(address6), ipv6_mask_show(mask6));
}

/* Creates this instance's runtime directory if it does not exist. */
static void show_paths(void) {
    char path[108];
    if (scc_make_path(path, "/security/scc", sizeof path, 1) == 0) {
        puts("no runtime directory: TMPDIR is unset or too long");
        return;
    }
    const uint32_t result = _scc_dir_create(path);
    printf("runtime directory %s: %s\n", path, result == 0 ? "there" : scc_strerror((int32_t)result));
    /* The second form needs a slash in TMPDIR. */
    printf("instance %u", _scc_lib_vsd_id_get());
    if (strchr(getenv("TMPDIR"), '/') != NULL) {
        printf(", %u", _scc_vsd_id_get());
    }
    putchar('\n');
}

static void show_identity(void) {
    char name[107];
    const uint32_t result = _scc_process_name_get(getpid(), name, sizeof name);
    printf("process %s\n", result == 0 ? name : scc_strerror((int32_t)result));
    const uint32_t before = _get_get_avail_svrid();
    _scc_svrid_inc();
    printf("service id %u, then %u\n", before, _scc_get_cur_svrid());
    char owners[128];
    scc_bind_user_name_get(0x3e, owners, sizeof owners);
    printf("binding owners %s\n", owners);
}

/* A service that stored only the code of an operation looks up the function that answers it. */
static void show_callbacks(void) {
    printf("operations with a callback:");
    for (uint32_t op = SCC_SS_OP_CREATE; op <= SCC_SS_OP_CPP; ++op) {
        if (scc_ssc_appmng_get_callback(op) != NULL) {
            printf(" %u", op);
        }
    }
    putchar('\n');
}

/* The probes belong to the host: it switches them on, measures, and reads the table. */
static void measure(void) {
    enum { probe = 0, rounds = 1000 };
    g_scc_perf_debug = 1;
    for (int i = 0; i < rounds; ++i) {
        scc_time_elapse_start(probe);
        (void)scc_strerror(i);
        scc_time_elapse_end(probe);
    }
    g_scc_perf_debug = 0;
    const struct scc_perf_entry* entry = &g_scc_perf[probe];
    printf("probe %d: %u times, longest below 1 s: %s\n", probe, entry->count,
           entry->max < 1000000 ? "yes" : "no");
}

int main(void) {
    show_addresses();
    show_paths();
    show_identity();
    show_callbacks();
    measure();
    return 0;
}
