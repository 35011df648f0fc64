// Fuzzes the replies of synchronous queries. The first byte selects the query.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "client/client_data.h"
#include "client/control_block.h"
#include "client/request_channel.h"
#include "scclib.h"

using namespace scc;

namespace {

void ask(unsigned which) {
    scc_acl_key key{0, 3, 1, 0};
    scc_config_record record{};
    scc_user_record user{};
    user.operation = SCC_USER_OPERATION_GET;
    scc_user_acl_record binding{};
    u8 out[16];
    u8 mac[6] = {};
    u8 flag = 0;
    u32 word = 0;
    u64 counter = 0;
    scc_arp_check_entry entries[4];
    int count = 4;
    switch (which % 11) {
        case 0:
            (void)scc_mac_query(mac, &word);
            break;
        case 1:
            (void)scc_sp_port_addr_num(&record, nullptr);
            break;
        case 2:
            (void)scc_nac_user_get(&user);
            break;
        case 3:
            (void)scc_nac_span_dport_set(&record, nullptr);
            break;
        case 4:
            (void)scc_is_arp_check_enabled(&flag);
            break;
        case 5:
            (void)scc_arp_check_user_count_get(1, &word);
            break;
        case 6:
            (void)scc_arp_check_user_data_get(1, entries, &count);
            break;
        case 7:
            (void)scc_user_acl_change_vmsup(&binding, out);
            break;
        case 8:
            (void)scc_acl_get_filter_counter(&key, &counter);
            break;
        case 9:
            (void)scc_acl_get_counter(&key, &counter);
            break;
        default:
            (void)scc_ace_get_counter(&key, 1, &counter);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 60000) {
        return 0;
    }
    static bool ready = false;
    if (!ready) {
        ready = true;
        _scc_lib_data_init();
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return 0;
    }
    (void)!write(ends[1], data + 1, size - 1);
    shutdown(ends[1], SHUT_WR);
    g_scc_client_cb.app_id.store(5);
    g_scc_client_cb.thread_mode.store(1);
    g_scc_client_cb.state.store(state_registered);
    g_scc_client_cb.sync_fd.store(ends[0]);
    ask(data[0]);
    g_scc_client_cb.sync_fd.store(-1);
    close(ends[0]);
    close(ends[1]);
    return 0;
}
