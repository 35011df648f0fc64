// Faults on purpose: rules that choose requests by type, client and occurrence, and say what goes wrong. They
// come from the control socket and from scenarios.
#pragma once

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "sccd/json_fields.h"

namespace scc::sccd {

enum class fault_action : u8 {
    refuse,        // not carried out; answered with a result
    mute,          // not carried out and never answered
    delay,         // answered later
    twice,         // answered twice
    late,          // answered after the application has registered again
    wrong_type,    // answered under a type that no message has
    short_value,   // answered with the value's first bytes only
    half_message,  // the answer breaks off in the middle, and then the connection
    disconnect,    // not carried out; the client's connection ends
    stop_reading,  // carried out; then nothing of this client is read for a while
    restart,       // as if the daemon were restarted: all connections end, new ones are refused for a while
};

// What happens to one request.
struct fault_effect {
    fault_action action{};
    std::chrono::milliseconds time{0};
    u32 result = 0;
    u32 bytes = 0;
};

struct fault_rule {
    u64 id = 0;
    u16 type = 0;  // 0: requests of every type but the registration
    u32 app = 0;   // 0: every application
    u32 pid = 0;   // 0: every process
    u32 nth = 1;   // the first matching request that is hit
    u32 every = 1;
    u32 count = 1;  // hits; 0: no end
    fault_effect effect;
    u64 seen = 0;
    u64 hits = 0;
};

class fault_rules {
  public:
    u64 add(fault_rule rule);
    // Drops one rule; false if there is none.
    bool drop(u64 id);
    void clear() { rules_.clear(); }
    // Replaces the rule of this action and type.
    void replace(const fault_rule& rule);
    void drop_all(fault_action action, u16 type);

    // Counts a request. The oldest rule that hits it decides.
    [[nodiscard]] std::optional<fault_effect> take(u16 type, u32 app, u32 pid);
    [[nodiscard]] json show() const;

  private:
    std::list<fault_rule> rules_;
    u64 last_id_ = 0;
};

// Reads a rule; fields of `own_words` are ignored. Returns what is wrong with it; empty if nothing is.
[[nodiscard]] std::string read_fault(const json& object, const std::vector<std::string_view>& own_words,
                                     fault_rule& rule);
// Adds the rules of a scenario file. Throws std::runtime_error.
void load_scenario(fault_rules& rules, const std::string& path);

}  // namespace scc::sccd
