// The counters of the daemon and its clients as text for Prometheus.
//
// The two formats differ in what they call a counter: the sample is NAME_total in both, but its type is told
// of NAME in OpenMetrics and of NAME_total in the text format, which node_exporter reads.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/control.h"
#include "common/control_client.h"
#include "program.h"

namespace scc::ctl {
namespace {

constexpr mode_t readable_by_all = 0644;  // the collector is another user

class metrics_text {
  public:
    explicit metrics_text(metrics_format format) : open_(format == metrics_format::open_metrics) {}

    void counter(std::string_view name, std::string_view help) {
        sample_ = std::string(name) + "_total";
        head(open_ ? std::string(name) : sample_, "counter", help);
    }
    void gauge(std::string_view name, std::string_view help) {
        sample_ = name;
        head(sample_, "gauge", help);
    }
    // `labels` as in "app=\"5\"".
    void value(const std::string& labels, const json& number) {
        text_ += sample_ + (labels.empty() ? "" : "{" + labels + "}") + " " + number.dump() + "\n";
    }
    [[nodiscard]] std::string take() { return text_ + (open_ ? "# EOF\n" : ""); }

  private:
    void head(const std::string& name, std::string_view type, std::string_view help) {
        text_ += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
    }

    bool open_;
    std::string sample_;
    std::string text_;
};

std::string app_label(const json& client) {
    return fmt::format("app=\"{}\"", client.at("app").get<std::uint32_t>());
}

void add_daemon(metrics_text& into, const json& daemon) {
    into.gauge("scc_daemon_info", "The daemon's version.");
    into.value(fmt::format("version=\"{}\"", daemon.at("version").get<std::string>()), 1);
    into.gauge("scc_daemon_start_time_seconds", "When the daemon was started, in seconds since 1970.");
    into.value("", daemon.at("started_at"));
    into.gauge("scc_service_registered", "Whether the security service is registered.");
    into.value("", daemon.at("service").get<bool>() ? 1 : 0);
    into.gauge("scc_held_entries", "Entries that the daemon holds.");
    for (const auto& [kind, count] : daemon.at("held").items()) {
        into.value(fmt::format("kind=\"{}\"", kind), count);
    }
    into.counter("scc_requests", "Requests and reports that the daemon received.");
    for (const json& each : daemon.at("requests")) {
        into.value(fmt::format("type=\"{}\",name=\"{}\"", each.at("type").get<unsigned>(),
                               each.at("name").get<std::string>()),
                   each.at("count"));
    }
    into.counter("scc_results", "Results that the daemon sent to applications.");
    for (const json& each : daemon.at("results")) {
        into.value(fmt::format("result=\"{}\",name=\"{}\"", each.at("result").get<std::uint32_t>(),
                               each.at("name").get<std::string>()),
                   each.at("count"));
    }
}

void add_traffic(metrics_text& into, const json& clients, const char* what, const char* help) {
    into.counter(fmt::format("scc_client_{}", what), help);
    for (const json& client : clients) {
        for (const char* direction : {"received", "sent"}) {
            into.value(fmt::format("{},direction=\"{}\"", app_label(client), direction),
                       client.at(direction).at(what));
        }
    }
}

void add_clients(metrics_text& into, const json& clients) {
    into.gauge("scc_client_registered", "Whether the app id is registered.");
    for (const json& client : clients) {
        into.value(app_label(client), client.at("registered").get<bool>() ? 1 : 0);
    }
    add_traffic(into, clients, "messages", "Messages, as the daemon received and sent them.");
    add_traffic(into, clients, "items", "Items of messages.");
    add_traffic(into, clients, "bytes", "Bytes of messages.");
    into.gauge("scc_client_unanswered_requests", "Requests whose results are to come.");
    for (const json& client : clients) {
        into.value(app_label(client), client.at("unanswered"));
    }
    into.gauge("scc_client_queued_bytes", "Bytes that wait in the daemon until the client reads them.");
    for (const json& client : clients) {
        into.value(app_label(client), client.at("queued_bytes"));
    }
}

// What each registered client counts itself; empty for one that does not answer.
std::vector<std::pair<json, json>> statistics_of(const json& clients, const context& within) {
    std::vector<std::pair<json, json>> all;
    for (const json& client : clients) {
        if (!client.at("registered").get<bool>()) {
            continue;
        }
        const json reply = devkit::control_call({{"do", devkit::control::stats},
                                                 {"app", client.at("app")},
                                                 {"timeout_ms", within.registration.timeout.count()}});
        all.emplace_back(client, reply.value("entries", json::array()));
    }
    return all;
}

void add_statistics(metrics_text& into, const std::vector<std::pair<json, json>>& statistics) {
    into.gauge("scc_client_up", "Whether the client answers.");
    for (const auto& [client, entries] : statistics) {
        into.value(app_label(client), entries.empty() ? 0 : 1);
    }
    into.counter("scc_client_calls", "Calls of the client by their outcome, as it counts them.");
    for (const auto& [client, entries] : statistics) {
        for (const json& entry : entries) {
            for (const char* outcome :
                 {"call_successes", "call_failures", "callback_successes", "callback_failures"}) {
                into.value(fmt::format("{},call=\"{}\",outcome=\"{}\"", app_label(client),
                                       entry.at("name").get<std::string>(), outcome),
                           entry.at(outcome));
            }
        }
    }
}

// A device or a FIFO would be replaced by a file.
bool is_replaceable(const std::string& name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

// Writes a file of its own first, so that a reader finds the old text or the new one. Returns an errno value.
int replace_file(const std::string& name, const std::string& text) {
    const std::string next = fmt::format("{}.{}.new", name, ::getpid());
    const int descriptor = ::open(next.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, readable_by_all);
    if (descriptor < 0) {
        return errno;
    }
    int error = 0;
    for (std::size_t done = 0; done < text.size() && error == 0;) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        error = written < 0 && errno != EINTR ? errno : 0;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    error = ::fsync(descriptor) != 0 && error == 0 ? errno : error;
    error = ::close(descriptor) != 0 && error == 0 ? errno : error;
    if (error == 0 && ::rename(next.c_str(), name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(next.c_str());
    }
    return error;
}

}  // namespace

int run_metrics(const context& within, const std::string& file, metrics_format format) {
    int status = exit_success;
    const auto daemon = control_reply("metrics", {{"do", devkit::control::metrics}}, within, status);
    if (!daemon) {
        return status;
    }
    metrics_text text(format);
    add_daemon(text, *daemon);
    add_clients(text, daemon->at("clients"));
    add_statistics(text, statistics_of(daemon->at("clients"), within));
    std::string whole = text.take();
    if (file.empty()) {
        whole.pop_back();  // print_text ends the last line
        print_text(whole);
        return exit_success;
    }
    if (!is_replaceable(file)) {
        print_problem("metrics", file + ": not a regular file", within.output);
        return exit_refused;
    }
    if (const int error = replace_file(file, whole); error != 0) {
        print_problem("metrics", fmt::format("{}: {}", file, std::strerror(error)), within.output);
        return exit_refused;
    }
    return exit_success;
}

}  // namespace scc::ctl
