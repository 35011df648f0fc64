#include "sccd/daemon.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "sccd/notifications.h"
#include "sccd/requests.h"

namespace scc::sccd {
namespace {

constexpr mode_t everybody = 0777;
constexpr const char* listening_socket = "/.sccd_sd_";
constexpr const char* control_socket = "/.sccd_ctl";

int ending_signals() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    ::sigprocmask(SIG_BLOCK, &ending, nullptr);
    const int descriptor = ::signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
    }
    return descriptor;
}

}  // namespace

development_daemon::development_daemon(const daemon_options& options)
    : core_(options.trace, options.service_timeout),
      state_(options.state_file.empty() ? nullptr : std::make_unique<state_file>(core_, options.state_file)),
      signals_(ending_signals()),
      listener_(core_.loop, options.directory + listening_socket, everybody,
                [this](int descriptor) { core_.clients.accept(descriptor); }),
      control_(core_, options.directory + control_socket) {
    core_.clients.set_hooks(
        {[this](const client_entry& client, const devkit::wire_item& item) { take_item(client, item); },
         [this](const client_entry& client) { core_.client_ready(client); },
         [this](const client_entry& client) { core_.client_gone(client); }});
    signalled_ = core_.loop.make_event(
        signals_, EV_READ, [](int, short, void* loop) { static_cast<event_loop*>(loop)->stop(); },
        &core_.loop);
    event_loop::add(signalled_);
    if (!options.scenario.empty()) {
        load_scenario(core_.faults, options.scenario);
    }
    if (state_ != nullptr) {
        core_.touched = [this] { state_->touch(); };
    }
}

development_daemon::~development_daemon() {
    signalled_.reset();
    ::close(signals_);
}

void development_daemon::run() {
    core_.loop.run();
    if (state_ != nullptr) {
        state_->save();
    }
}

void development_daemon::take_item(const client_entry& client, const devkit::wire_item& item) {
    if (item.type == msg::is_alive || item.type == msg::info_collect) {
        return core_.take_probe_answer(client, item);
    }
    const bool reported = client.is_service() && take_report(core_, client, item);
    if (!reported) {
        take_request(core_, client, item);
    }
    core_.touch();
}

}  // namespace scc::sccd
