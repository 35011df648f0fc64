// What an application and the daemon exchange while a fault may strike: every request, notification and
// query.
#pragma once

#include <scclib.h>

#include <cstdint>
#include <functional>

namespace sweep {

using result = std::uint32_t;
// How a call is made: attempt, or call_strictly.
using caller = result (*)(const char* name, const std::function<result()>& call);

scc_acl_key key_of(std::uint32_t acl_id);

// Makes the request; returns its call id if it was accepted, otherwise 0.
std::uint32_t ask(const char* name, const std::function<result(std::uint32_t*)>& call);
bool ask_and_wait(const char* name, const std::function<result(std::uint32_t*)>& call);
void ask_everything();
// More requests than fit into a batch.
void ask_a_burst();
void say_one_way();
// Switches the log on, so that its lines are made too.
void switch_log_on();

void hear_notifications();
void answer_the_daemon();
// Longer than the receive buffer, so that its body is read separately.
void hear_a_long_message();

// Requires success.
result call_strictly(const char* name, const std::function<result()>& call);
void query_everything(caller make, std::uint8_t round);

// A start that finds no memory for its batch succeeds; requests are then 12 until the next start.
[[nodiscard]] bool has_batch();

// Whether restart_daemon() does anything.
void set_restarting(bool restarting);
void restart_daemon();

}  // namespace sweep
