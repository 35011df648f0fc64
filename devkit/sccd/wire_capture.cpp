#include "sccd/wire_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace scc::sccd {
namespace {

using devkit::byte_buffer;
using devkit::byte_view;
namespace pcapng = devkit::pcapng;

constexpr std::string_view program = "sccd-dev";
constexpr mode_t owner_only = 0600;

class capture_file {
  public:
    explicit capture_file(const std::string& path)
        : path_(path),
          descriptor_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, owner_only)) {
        if (descriptor_ < 0) {
            throw std::runtime_error(path + ": " + std::strerror(errno));
        }
    }
    ~capture_file() { ::close(descriptor_); }
    capture_file(const capture_file&) = delete;
    capture_file& operator=(const capture_file&) = delete;

    // Returns 0 or an errno value; after an error the file ends with the block before.
    [[nodiscard]] int write(byte_view block) {
        std::size_t done = 0;
        while (done < block.size()) {
            const ssize_t written = ::write(descriptor_, block.data() + done, block.size() - done);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written < 0) {
                const int error = errno;
                (void)!::ftruncate(descriptor_, written_);
                return error;
            }
            done += static_cast<std::size_t>(written);
        }
        written_ += static_cast<off_t>(block.size());
        return 0;
    }
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
    int descriptor_;
    off_t written_ = 0;
};

u64 time_ns() {
    using namespace std::chrono;
    return static_cast<u64>(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

wire_capture::sink_id wire_capture::attach(block_sink sink) {
    (void)sink(pcapng::beginning(program));
    sinks_.emplace(++last_sink_, attached_sink{std::move(sink), 0});
    return last_sink_;
}

void wire_capture::attach_file(const std::string& path) {
    // Shared, since a std::function must be copyable.
    auto file = std::make_shared<capture_file>(path);
    const int error = file->write(pcapng::beginning(program));
    if (error != 0) {
        throw std::runtime_error(path + ": " + std::strerror(error));
    }
    const sink_id id = ++last_sink_;
    const auto write = [file, failed = false](byte_view block) mutable {
        const int problem = failed ? 0 : file->write(block);
        if (problem != 0) {
            failed = true;
            std::fprintf(stderr, "sccd-dev: %s: %s; the capture ends here\n", file->path().c_str(),
                         std::strerror(problem));
        }
        return !failed;
    };
    sinks_.emplace(id, attached_sink{write, 0});
}

void wire_capture::message(const pcapng::packet_header& header, byte_view bytes) {
    for (auto& [id, sink] : sinks_) {
        const bool taken = sink.write(pcapng::packet(time_ns(), header, bytes, sink.lost));
        sink.lost = taken ? 0 : sink.lost + 1;
    }
}

}  // namespace scc::sccd
