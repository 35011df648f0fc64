// What the service does with its operations; and the platform's log function, which keeps only the cache's
// display.
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "model/real_library.h"

namespace model {
namespace {

events* g_displayed = nullptr;

// All records begin alike.
using record_head = scc_ss_svi_operation;

u32 code_of(u32 handler) {
    constexpr std::array<u32, 13> codes{0,
                                        SCC_SS_OP_CREATE,
                                        SCC_SS_OP_DELETE,
                                        SCC_SS_OP_ADD_ACE,
                                        SCC_SS_OP_DELETE_ACE,
                                        SCC_SS_OP_APPLY,
                                        SCC_SS_OP_UNAPPLY,
                                        SCC_SS_OP_RESEQUENCE,
                                        SCC_SS_OP_SVI_ROUTER_ACL,
                                        SCC_SS_OP_COUNTER,
                                        SCC_SS_OP_COUNTER,
                                        SCC_SS_OP_GLOBAL_EPORT,
                                        SCC_SS_OP_CPP};
    return codes.at(handler);
}

record_head head_of(const bytes& record) {
    record_head head{};
    std::memcpy(&head, record.data(), offsetof(record_head, flag));
    return head;
}

void complete(bytes record, const operation_answer& with) {
    record_head head = head_of(record);
    head.ret = with.result;
    std::memcpy(record.data(), &head, offsetof(record_head, flag));
    if (record.size() == sizeof(scc_ss_counter_operation)) {
        std::memcpy(record.data() + offsetof(scc_ss_counter_operation, counter), &with.counter,
                    sizeof with.counter);
    }
    head.callback(record.data(), static_cast<u32>(record.size()));
}

}  // namespace

void real_library::asked(u32 handler, const void* record, std::size_t record_bytes, bytes arguments) {
    seen.push_back({"operation " + std::to_string(handler), std::move(arguments)});
    const auto* at = static_cast<const u8*>(record);
    bytes copy(at, at + record_bytes);
    record_head head = head_of(copy);
    head.op = code_of(handler);
    std::memcpy(copy.data(), &head, offsetof(record_head, flag));
    const bool at_once = !answers_at_once.empty() && answers_at_once.front();
    if (!answers_at_once.empty()) {
        answers_at_once.pop_front();
    }
    if (at_once) {
        operation of{};
        of.id = head.id;
        complete(std::move(copy), immediate_answer(of));
    } else {
        kept_.push_back(std::move(copy));
    }
}

void real_library::answer_operation(u8 which, u8 seed) {
    if (kept_.empty()) {
        return;
    }
    const auto chosen = kept_.begin() + which % static_cast<int>(kept_.size());
    bytes record = std::move(*chosen);
    kept_.erase(chosen);
    complete(std::move(record), later_answer(seed));
}

void display_to(events* to) {
    g_displayed = to;
}

}  // namespace model

extern "C" {

int printk_syslog_ext(int level, const char* module, const char* submodule, int flag, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

int printk_syslog_ext(int /*level*/, const char* /*module*/, const char* submodule, int /*flag*/,
                      const char* format, ...) {
    if (model::g_displayed == nullptr || std::string_view(submodule) != "SHOW") {
        return 0;
    }
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const std::string_view text(line);
    model::g_displayed->push_back({"display", {text.begin(), text.end()}});
    return length;
}
}
