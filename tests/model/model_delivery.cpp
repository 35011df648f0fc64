// The model's side of what the daemon sends: results, notifications, and the service's operations.
#include "model/library_model.h"

namespace model {

operation_answer immediate_answer(const operation& of) {
    return {of.id % 2 == 0 ? 5U : 0U, 77};
}

operation_answer later_answer(u8 seed) {
    return {seed % 4 == 3 ? seed : 0U, number_of(seed)};
}

void library_model::deliver(const std::vector<daemon_item>& items) {
    for (const daemon_item& item : items) {
        if (standing_ != standing::registered) {
            return;  // a handler has unregistered
        }
        if (facts_.is_service) {
            take_service_item(item);
        } else {
            take_application_item(item);
        }
    }
}

void library_model::take_application_item(const daemon_item& item) {
    switch (item.type) {
        case 319:
            (void)send_now("sync", 0, 319, wire().u32(facts_.app_id));
            break;
        case 401:
            take_result(item.value);
            break;
        case 406:
            capability_ = test::number_at<u64>(item.value, 0);
            break;
        default:
            if (item.heard) {
                hear(*item.heard);
            } else {
                take_common_item(item);
            }
            break;
    }
}

void library_model::take_common_item(const daemon_item& item) {
    if (item.type == 318) {
        (void)send_now("sync", 0, 318, statistics_.report(facts_.app_id));
    } else if (item.type == 206) {
        display_cache();
    }
}

void library_model::display_cache() {
    for (const std::string& line : cache_.display()) {
        seen.push_back({"display", bytes(line.begin(), line.end())});
    }
}

void library_model::take_result(const bytes& value) {
    const u32 id = test::u32_at(value, 0);
    const u32 result = test::u32_at(value, 4);
    const auto found = std::find_if(pending_.begin(), pending_.end(),
                                    [&](const pending_call& call) { return call.id == id; });
    if (found == pending_.end()) {
        return;
    }
    const pending_call call = *found;
    pending_.erase(found);
    statistics_.count_outcome(outcome_counter_of(call.kind, call.saved), result == 0);
    const result_target target = target_of(call.kind, result, id, call.saved);
    call_handler(target.position, target.arguments);
    if (result == 0 && standing_ == standing::registered && facts_.option != 0) {
        cache_.confirm(call.kind, call.saved);
    }
}

void library_model::hear(const notification& heard) {
    statistics_.count_call(heard.call_counter, true);
    if (heard.position == heard_by_nobody || is_absent(facts_, heard.position)) {
        return;
    }
    call_handler(heard.position, heard.arguments);
    statistics_.count_outcome(heard.outcome_counter,
                              !heard.handler_decides || answer_to_user_change(heard.value[16]) == 0);
}

void library_model::take_service_item(const daemon_item& item) {
    if (item.asked) {
        operate(item);
        return;
    }
    switch (item.type) {
        case 209: {
            // The service has no handler: success without any action.
            const u32 id = test::u32_at(item.value, 0);
            types_.save(id, item.sub_id);
            (void)send_batched(types_.take(id), 402, wire().u32(id).u32(0).u32(209));
            break;
        }
        case 213:
        case 214: {
            const u32 slot = item.type == 213 ? 13 : 14;
            if (!is_absent(facts_, slot)) {
                seen.push_back({"handler " + std::to_string(item.heard->position), item.heard->arguments});
            }
            break;
        }
        default:
            take_common_item(item);
            break;
    }
}

void library_model::operate(const daemon_item& item) {
    const operation& asked = *item.asked;
    types_.save(asked.id, item.sub_id);
    if (asked.is_counted) {
        statistics_.count_call(static_cast<int>(asked.code), true);
    }
    if (is_absent(facts_, asked.handler)) {
        send_answer(asked, {0, 0});
        return;
    }
    bytes arguments;
    append_number(arguments, asked.id);
    append_number(arguments, u8{1});
    if (asked.has_key) {
        append_block(arguments, asked.value.data() + 4, 16);
    }
    seen.push_back({"operation " + std::to_string(asked.handler), arguments});
    if (item.answers_at_once) {
        send_answer(asked, immediate_answer(asked));
    } else {
        kept_.push_back(asked);
    }
}

void library_model::send_answer(const operation& of, const operation_answer& with) {
    const u16 type = types_.take(of.id);
    const bytes value = answer_value(of, with);
    if (!of.is_query) {
        (void)send_batched(type, 402, value);
    } else if (standing_ == standing::registered) {
        (void)send_now("sync", type, 402, value);
    }
    if (of.is_counted) {
        statistics_.count_outcome(static_cast<int>(of.code), with.result == 0);
    }
}

void library_model::answer_operation(u8 which, u8 seed) {
    if (kept_.empty()) {
        return;
    }
    const auto chosen = kept_.begin() + which % static_cast<int>(kept_.size());
    const operation of = *chosen;
    kept_.erase(chosen);
    send_answer(of, later_answer(seed));
}

}  // namespace model
