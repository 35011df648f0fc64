// Writes the daemon's stream of messages to a file of whole pcapng blocks.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/bytes.h"
#include "common/control.h"
#include "common/control_client.h"
#include "common/counted.h"
#include "interrupt.h"
#include "program.h"

namespace scc::ctl {
namespace {

constexpr std::uint32_t packet_block = 6;
constexpr std::size_t block_header_bytes = 8;  // type and length
constexpr int read_slice_ms = 100;
constexpr mode_t owner_only = 0600;

// What can go wrong, as an errno value.
struct write_failure {
    int error = 0;
};

class block_file {
  public:
    explicit block_file(const std::string& name)
        : descriptor_(name == "-"
                          ? ::dup(STDOUT_FILENO)
                          : ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, owner_only)) {
        if (descriptor_ < 0) {
            throw write_failure{errno};
        }
    }
    ~block_file() { ::close(descriptor_); }
    block_file(const block_file&) = delete;
    block_file& operator=(const block_file&) = delete;

    // Writes the whole blocks of what has come so far, until `most` packets are written; 0: all.
    void take(const devkit::byte_buffer& bytes, std::uint64_t most) {
        waiting_.insert(waiting_.end(), bytes.begin(), bytes.end());
        std::size_t whole = 0;
        while (most == 0 || packets_ < most) {
            const devkit::byte_view rest = devkit::byte_view(waiting_).subspan(whole);
            const std::size_t len = devkit::u32_at(rest, 4);
            if (rest.size() < block_header_bytes || len < block_header_bytes || rest.size() < len) {
                break;
            }
            packets_ += devkit::u32_at(rest, 0) == packet_block ? 1 : 0;
            whole += len;
        }
        write(devkit::byte_view(waiting_).first(whole));
        waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(whole));
    }
    [[nodiscard]] std::uint64_t packets() const { return packets_; }

  private:
    void write(devkit::byte_view bytes) {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t written = ::write(descriptor_, bytes.data() + done, bytes.size() - done);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written < 0) {
                const int error = errno;
                (void)!::ftruncate(descriptor_, written_);  // the last whole block
                throw write_failure{error};
            }
            done += static_cast<std::size_t>(written);
        }
        written_ += static_cast<off_t>(bytes.size());
    }

    int descriptor_;
    devkit::byte_buffer waiting_;
    std::uint64_t packets_ = 0;
    off_t written_ = 0;
};

// Returns whether the daemon is still there.
bool follow(devkit::control_stream& stream, block_file& file, double seconds, std::uint64_t count) {
    const auto until =
        steady::now() + std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(seconds));
    while (!interrupted() && (count == 0 || file.packets() < count)) {
        int wait_ms = read_slice_ms;
        if (seconds > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - steady::now());
            if (left.count() <= 0) {
                break;
            }
            wait_ms = static_cast<int>(std::min<std::int64_t>(wait_ms, left.count()));
        }
        const auto bytes = stream.read(wait_ms);
        if (!bytes) {
            return false;
        }
        file.take(*bytes, count);
    }
    return true;
}

}  // namespace

int run_capture(const context& within, const std::string& file_name, double seconds, std::uint64_t count) {
    catch_interrupts();
    devkit::control_stream stream;
    const json reply = stream.open({{"do", devkit::control::capture}});
    if (!reply.value("ok", false)) {
        print_problem("capture", reply.value("error", ""), within.output);
        return reply.value("unreachable", false) ? exit_unreachable : exit_refused;
    }
    try {
        block_file file(file_name);
        const bool complete = follow(stream, file, seconds, count);
        fmt::print(stderr, "sccctl: {} captured\n", devkit::counted(file.packets(), "message"));
        if (!complete) {
            print_problem("capture", "the daemon went away", within.output);
        }
        return complete ? exit_success : exit_unreachable;
    } catch (const write_failure& failure) {
        print_problem("capture", fmt::format("{}: {}", file_name, std::strerror(failure.error)),
                      within.output);
        return exit_refused;
    }
}

}  // namespace scc::ctl
