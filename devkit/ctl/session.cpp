// Registering, waiting and unregistering.
#include "session.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "command.h"
#include "common/control_client.h"
#include "interrupt.h"
#include "msg/protocol.h"
#include "notifications.h"
#include "scclib.h"

namespace scc::ctl {
namespace {

// How often a wait checks for an interrupt.
constexpr std::chrono::milliseconds interrupt_interval{100};

// Twice the interval at which the library's checker flushes the send buffer.
constexpr std::chrono::microseconds buffer_leaves{4 * limits::batch_interval_us};

void on_status(std::uint32_t status) {
    inbox::shared().put_status(status);
}

scc_reg_info registration(const session_options& options) {
    scc_reg_info info{};
    info.app_id = options.app_id;
    info.option = options.option;
    info.handlers.server_status = &on_status;
    for (const command& each : commands()) {
        for (const auto install : each.install) {
            install(info.handlers);
        }
    }
    if (options.notifications) {
        install_notifications(info.handlers);
    }
    return info;
}

// Empty at the deadline, or when the user has interrupted the wait.
std::optional<event> take_until(steady::time_point until) {
    while (true) {
        const auto slice = std::min(until, steady::now() + interrupt_interval);
        auto arrived = inbox::shared().take(slice);
        if (arrived || interrupted() || steady::now() >= until) {
            return arrived;
        }
    }
}

// Registration sets the umask to 0 for the library's socket files; the tool's own files need the user's.
std::uint32_t register_with_umask_kept(const scc_reg_info& info) {
    const mode_t before = umask(0);
    const std::uint32_t result = scc_svr_reg(&info);
    umask(before);
    return result;
}

}  // namespace

bool tells_of_loss(std::uint32_t result) {
    return result == EPIPE || result == ECONNRESET || result == ENOTCONN || result == EBADF;
}

bool session::start() {
    if (std::string problem = devkit::absent_daemon(); !problem.empty()) {
        return fail(std::move(problem));
    }
    inbox::shared().clear();
    const scc_reg_info info = registration(options_);
    const std::uint32_t result = register_with_umask_kept(info);
    if (result != 0) {
        return fail(scc_strerror(static_cast<std::int32_t>(result)));
    }
    started_ = true;
    const auto until = deadline();
    while (const auto arrived = take_until(until)) {
        if (arrived->what == event::kind::status && arrived->number == 1) {
            was_registered_ = true;
            return true;
        }
    }
    return fail(
        fmt::format("not registered as app {} after {:.1f} s: the daemon does not answer, or the id is taken",
                    options_.app_id, std::chrono::duration<double>(options_.timeout).count()));
}

void session::stop() {
    if (!started_) {
        return;
    }
    started_ = false;
    await_connection();
    for (int tries = 0; tries < 2 && scc_svr_unreg() == SCC_E_UNREGISTER_REJECTED; ++tries) {
        // A query that was answered twice: its second answer was taken for that of the unregistration.
    }
    book_.clear();
}

// While the library connects again, an unregistration does nothing, and the files of the sockets would
// outlive this process.
void session::await_connection() {
    const bool is_connected = inbox::shared().await_registration(lost_after_, steady::now());
    if (is_connected || !was_registered_ || interrupted() || !devkit::absent_daemon().empty()) {
        return;
    }
    (void)inbox::shared().await_registration(lost_after_, deadline());
}

void session::note_result(std::uint64_t registrations, std::uint32_t result) {
    if (tells_of_loss(result)) {
        lost_after_ = registrations;
    }
}

std::optional<event> session::wait_result(std::uint32_t call_id) {
    if (auto found = early_.extract(call_id)) {
        return std::move(found.mapped());
    }
    const auto until = deadline();
    while (auto arrived = wait_event(until)) {
        if (arrived->what == event::kind::status && arrived->number == 0) {
            return std::nullopt;
        }
        if (arrived->what != event::kind::result) {
            continue;
        }
        if (arrived->call_id == call_id) {
            return arrived;
        }
        early_.insert_or_assign(arrived->call_id, std::move(*arrived));
    }
    return std::nullopt;
}

std::optional<event> session::wait_any_result() {
    if (!early_.empty()) {
        return std::move(early_.extract(early_.begin()).mapped());
    }
    const auto until = deadline();
    while (auto arrived = wait_event(until)) {
        if (arrived->what == event::kind::status && arrived->number == 0) {
            return std::nullopt;
        }
        if (arrived->what == event::kind::result) {
            return arrived;
        }
    }
    return std::nullopt;
}

std::optional<event> session::wait_event(steady::time_point until) {
    auto arrived = take_until(until);
    if (!arrived && interrupted()) {
        problem_ = "interrupted";
    } else if (!arrived) {
        problem_ =
            fmt::format("no answer within {:.1f} s", std::chrono::duration<double>(options_.timeout).count());
    } else if (arrived->what == event::kind::status && arrived->number == 0) {
        lost();
    }
    return arrived;
}

void session::linger() const {
    std::this_thread::sleep_for(buffer_leaves);
}

bool session::fail(std::string why) {
    problem_ = std::move(why);
    return false;
}

void session::lost() {
    problem_ = "the daemon went away";
    early_.clear();
    book_.clear();
}

}  // namespace scc::ctl
