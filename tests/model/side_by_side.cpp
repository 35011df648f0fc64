#include "model/side_by_side.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "model/library_model.h"
#include "model/real_library.h"

namespace model {
namespace {

class side_by_side;
side_by_side* g_running = nullptr;

// Every sequence ends with these: the whole cache and all counters are compared, and a new registration finds
// nothing of the old one, so that the next sequence starts like the first.
const sequence closing_acts{
    {act_kind::come_back},        {act_kind::collect},          {act_kind::display},
    {act_kind::read_cache, 1, 0}, {act_kind::read_cache, 1, 1}, {act_kind::read_cache, 1, 16},
    {act_kind::unregister},       {act_kind::unregister},       {act_kind::start},
    {act_kind::come_back},        {act_kind::request},          {act_kind::check},
    {act_kind::collect},          {act_kind::display},
};

// The first event that differs, from a little before the byte that does.
std::string show_difference(const events& of_model, const events& of_library) {
    std::size_t same = 0;
    while (same < of_model.size() && same < of_library.size() && of_model[same] == of_library[same]) {
        ++same;
    }
    std::size_t from = 0;
    if (same < of_model.size() && same < of_library.size()) {
        const bytes& one = of_model[same].data;
        const bytes& other = of_library[same].data;
        const auto differing = std::mismatch(one.begin(), one.end(), other.begin(), other.end()).first;
        from = static_cast<std::size_t>(differing - one.begin());
        from = from < 16 ? 0 : (from - 8) / 4 * 4;
    }
    const auto shown = [&](const events& all) {
        return same < all.size() ? show(all[same], from) : std::string("nothing more");
    };
    return "  model  : " + shown(of_model) + "\n  library: " + shown(of_library);
}

class side_by_side {
  public:
    side_by_side(const sequence& acts, act_counts& counts)
        : acts_(acts), counts_(counts), generated_(acts.size()), real_([] { g_running->waiting(); }) {
        acts_.insert(acts_.end(), closing_acts.begin(), closing_acts.end());
        g_running = this;
    }
    ~side_by_side() { g_running = nullptr; }
    side_by_side(const side_by_side&) = delete;
    side_by_side& operator=(const side_by_side&) = delete;

    std::optional<std::string> run();

  private:
    void waiting();
    void play_next();
    bool play(const act& next);
    bool play_on_both(const act& next);
    bool start(const act& next);
    bool lose(const act& next);
    bool come_back();
    bool refuse(const act& next);
    bool send(const act& next, daemon_item item);
    bool send_result(const act& next, bool is_known);
    bool send_notification(const act& next);
    bool send_operation(const act& next);
    void end_message();
    void deliver_held();
    void drop_held();
    void end();
    void compare();

    sequence acts_;
    act_counts& counts_;
    std::size_t generated_;
    std::size_t next_ = 0;
    library_model model_;
    real_library real_;
    std::vector<daemon_item> message_;  // what goes together with the next item
    std::vector<daemon_item> items_;    // of whole messages that were not sent yet
    bytes stream_;
    unsigned unnoticed_acts_ = 0;
    unsigned endings_ = 0;
    std::optional<std::string> difference_;
};

std::optional<std::string> side_by_side::run() {
    for (;;) {
        if (real_.has_thread()) {
            real_.run_thread();
            continue;
        }
        compare();
        if (difference_ || next_ == acts_.size()) {
            break;
        }
        play_next();
    }
    const std::size_t leaked = real_.leaked_descriptors();
    if (leaked != 0 && !difference_) {
        difference_ = std::to_string(leaked) + " descriptors are open at the end";
    }
    return difference_;
}

// The receive thread waits, for bytes or for its next attempt.
void side_by_side::waiting() {
    if (real_.has_something_to_read()) {
        return;
    }
    real_.process_queue();
    compare();
    if (difference_ || next_ == acts_.size()) {
        end();
        return;
    }
    play_next();
    while (unnoticed_acts_ > 0 && model_.now() == library_model::standing::registered &&
           next_ < acts_.size()) {
        --unnoticed_acts_;
        compare();
        play_next();
    }
    unnoticed_acts_ = 0;
    if (model_.now() == library_model::standing::registered &&
        model_.connection() != library_model::link::good) {
        model_.notice_loss();
    }
}

void side_by_side::end() {
    if (++endings_ > 30) {
        std::abort();  // the library does not return, and its thread is on this stack
    }
    real_.daemon_is_there = model_.daemon_is_there = true;
    real_.refuses_registration = model_.refuses_registration = std::nullopt;
    real_.refuses_unregistration = model_.refuses_unregistration = false;
    real_.unregister();
    model_.unregister();
    if (model_.now() == library_model::standing::connecting) {
        model_.try_to_register();
    }
}

void side_by_side::compare() {
    if (!difference_ && real_.seen != model_.seen) {
        std::ostringstream text;
        text << (next_ > generated_ ? "at the end, after act " : "after act ") << next_;
        if (next_ > 0) {
            text << " (" << acts_[next_ - 1] << ")";
        }
        text << "\n" << show_difference(model_.seen, real_.seen);
        difference_ = text.str();
    }
    real_.seen.clear();
    model_.seen.clear();
}

void side_by_side::play_next() {
    const act next = acts_[next_++];
    const bool effective = play(next);
    if (next_ <= generated_) {
        ++counts_.played.at(static_cast<std::size_t>(next.kind));
        counts_.effective.at(static_cast<std::size_t>(next.kind)) += effective ? 1 : 0;
    }
    if (model_.now() == library_model::standing::connecting) {
        model_.try_to_register();
    }
}

bool side_by_side::play(const act& next) {
    switch (next.kind) {
        case act_kind::start:
            return start(next);
        case act_kind::result:
            return send_result(next, true);
        case act_kind::unknown_result:
            return send_result(next, false);
        case act_kind::notification:
            return send_notification(next);
        case act_kind::collect:
            return send({}, {0, 318, {}, {}, {}});
        case act_kind::probe:
            return send({}, {0, 319, {}, {}, {}});
        case act_kind::display:
            return send({}, {0, 206, wire().zeros(32).u32(3).u32(3).zeros(12), {}, {}});
        case act_kind::operation:
            return send_operation(next);
        case act_kind::lose:
            return lose(next);
        case act_kind::come_back:
            return come_back();
        case act_kind::refuse:
            return refuse(next);
        default:
            return play_on_both(next);
    }
}

bool side_by_side::play_on_both(const act& next) {
    switch (next.kind) {
        case act_kind::check:
            model_.check();
            real_.check();
            return true;
        case act_kind::react:
            model_.react(reaction_of(next));
            real_.react(reaction_of(next));
            return true;
        case act_kind::answer: {
            const bool has_any = model_.kept_operations() != 0;
            model_.answer_operation(next.which, next.seed);
            real_.answer_operation(next.which, next.seed);
            return has_any;
        }
        default: {
            const bool was_registered = model_.now() == library_model::standing::registered;
            perform(model_, next);
            perform(real_, next);
            return was_registered;
        }
    }
}

bool side_by_side::start(const act& next) {
    const bool was_idle = model_.now() == library_model::standing::idle;
    model_.start(next);
    real_.is_service = model_.is_service();
    real_.start(next);
    return was_idle;
}

// A daemon that ends has sent everything it had to send; the loss is noticed at once, or only after more
// acts.
bool side_by_side::lose(const act& next) {
    if (model_.connection() != library_model::link::good) {
        return false;
    }
    real_.lose();
    model_.lose();
    if (next.which % 2 != 0) {
        real_.daemon_is_there = model_.daemon_is_there = false;
    }
    if (model_.is_service()) {
        // A service's operations wait in a queue while the loss is noticed.
        drop_held();
    }
    if (stream_.empty() && message_.empty()) {
        unnoticed_acts_ = next.how % 4;
    } else {
        deliver_held();
    }
    return true;
}

bool side_by_side::come_back() {
    const bool was_away = !model_.daemon_is_there;
    real_.daemon_is_there = model_.daemon_is_there = true;
    return was_away;
}

bool side_by_side::refuse(const act& next) {
    if (next.which % 3 == 2) {
        real_.refuses_unregistration = model_.refuses_unregistration = true;
    } else {
        real_.refuses_registration = model_.refuses_registration = next.which % 3;
    }
    return true;
}

// ---- what the daemon sends -------------------------------------------------------------------------

void side_by_side::end_message() {
    if (message_.empty()) {
        return;
    }
    std::vector<bytes> together;
    for (const daemon_item& item : message_) {
        together.push_back(test::item_bytes(item.type, item.value, item.sub_id));
    }
    const bytes message = test::message_bytes(together);
    stream_.insert(stream_.end(), message.begin(), message.end());
    items_.insert(items_.end(), message_.begin(), message_.end());
    message_.clear();
}

void side_by_side::deliver_held() {
    end_message();
    for (const daemon_item& item : items_) {
        if (item.asked && model_.has_handler(item.asked->handler)) {
            real_.answers_at_once.push_back(item.answers_at_once);
        }
    }
    real_.deliver(stream_);
    model_.deliver(items_);
    stream_.clear();
    items_.clear();
}

void side_by_side::drop_held() {
    message_.clear();
    items_.clear();
    stream_.clear();
}

// Items go one by one, several in a message, or several messages in one read.
bool side_by_side::send(const act& next, daemon_item item) {
    if (model_.connection() != library_model::link::good) {
        drop_held();
        return false;
    }
    message_.push_back(std::move(item));
    constexpr u8 in_one_message = 2;
    constexpr u8 in_one_read = 3;
    constexpr std::size_t most_at_once = 200;
    if (next.how % 4 == in_one_message && message_.size() < most_at_once) {
        return true;
    }
    end_message();
    if (next.how % 4 != in_one_read || items_.size() >= most_at_once) {
        deliver_held();
    }
    return true;
}

bool side_by_side::send_result(const act& next, bool is_known) {
    const std::vector<pending_call>& pending = model_.pending();
    if (is_known && pending.empty()) {
        return false;
    }
    // The other ids were never given, or belong to calls that have ended or were lost.
    const u32 unknown = next.which % 4 == 0 ? number_of(next.seed) : 1U + next.seed % 12U;
    const u32 id = is_known ? pending[next.which % pending.size()].id : unknown;
    return send(next, {0, 401, wire().u32(id).u32(next.seed % 4 == 1 ? 2008 : 0), {}, {}});
}

bool side_by_side::send_notification(const act& next) {
    notification heard = make_notification(next.which, next.seed);
    const u16 type = heard.type;
    const bytes value = heard.value;
    return send(next, {next.seed, type, value, std::move(heard), {}});
}

bool side_by_side::send_operation(const act& next) {
    if (!model_.is_service()) {
        return false;
    }
    operation asked = make_operation(next.which, next.seed);
    const u16 type = asked.type;
    const bytes value = asked.value;
    const auto sub_id = static_cast<u16>(1 + next.how * 257U);
    return send(next, {sub_id, type, value, {}, std::move(asked), (next.how & 0x40) != 0});
}

}  // namespace

std::optional<std::string> differs(const sequence& acts, act_counts& counts) {
    return side_by_side(acts, counts).run();
}

void prepare_process() {
    // The runtime directory is never created: only the fake system sees its paths.
    setenv("TMPDIR", "/tmp", 1);
    unsetenv("DATA_QXOS_DIR");
}

}  // namespace model
