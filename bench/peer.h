// The daemon's side of a benchmark, in its own process: accepts every registration and answers requests
// immediately, with as little work as possible.
#pragma once

#include <sys/types.h>

#include <string>

namespace bench {

enum class answers {
    one_a_message,        // each result is a message of its own
    batch_together,       // the results of one received message are one message
    everything_together,  // the results of everything that has arrived are one message
    // Nothing until a water-line notification: 0 releases the next result in `order`, 1 all of them, 500 per
    // message, 2 all of them, one per message.
    hold,
};

enum class order { ascending, descending, random };

struct peer_options {
    answers how = answers::one_a_message;
    order held_order = order::ascending;
    int processor = -1;  // pins the process
};

// A listening socket in $TMPDIR, where the library looks for the daemon.
int listen_in_runtime_directory();
// Serves one client until it closes its sockets.
[[noreturn]] void serve(int listener, const peer_options& options);

// Listens in $TMPDIR, forks, and serves until the client closes its sockets.
class peer {
  public:
    explicit peer(const peer_options& options);
    ~peer();
    peer(const peer&) = delete;
    peer& operator=(const peer&) = delete;

  private:
    pid_t child_ = -1;
};

// The development daemon of the same build; its answers include all of its own work.
class development_daemon {
  public:
    development_daemon();
    ~development_daemon();
    development_daemon(const development_daemon&) = delete;
    development_daemon& operator=(const development_daemon&) = delete;

  private:
    pid_t child_ = -1;
};

void pin_to(int processor);

// A fresh TMPDIR for one measurement; removed by the destructor.
class runtime_directory {
  public:
    runtime_directory();
    ~runtime_directory();
    runtime_directory(const runtime_directory&) = delete;
    runtime_directory& operator=(const runtime_directory&) = delete;

  private:
    std::string path_;
};

}  // namespace bench
