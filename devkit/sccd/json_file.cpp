#include "sccd/json_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace scc::sccd {
namespace {

// No command, scenario or state nests more than six levels.
constexpr int depth_max = 16;
constexpr off_t file_max_bytes = 256 * 1024 * 1024;

// Ends the parser at once, which would otherwise read the whole text.
struct nested_too_deeply {};

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw std::runtime_error(path + ": " + reason);
}

class open_file {
  public:
    // Does not wait for the writer of a FIFO.
    explicit open_file(const std::string& path)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~open_file() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    open_file(const open_file&) = delete;
    open_file& operator=(const open_file&) = delete;
    [[nodiscard]] int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

std::string contents_of(int descriptor, const std::string& path) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        fail(path, "not a regular file");
    }
    if (status.st_size > file_max_bytes) {
        fail(path, "larger than 256 MiB");
    }
    std::string text;
    std::array<char, 64 * 1024> part{};
    ssize_t count = 0;
    while ((count = ::read(descriptor, part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    if (count < 0) {
        fail(path, std::strerror(errno));
    }
    return text;
}

// "[json.exception.parse_error.101] parse error at line 3, column 5: ..." without the library's own number.
std::string plain_reason(const std::string& what) {
    const std::size_t end = what.find("] ");
    return end == std::string::npos ? what : what.substr(end + 2);
}

}  // namespace

json parse_json(const std::string& text, std::string* problem) {
    try {
        return json::parse(text, [](int depth, json::parse_event_t, const json&) {
            if (depth > depth_max) {
                throw nested_too_deeply();
            }
            return true;
        });
    } catch (const nested_too_deeply&) {
        if (problem != nullptr) {
            *problem = "nested too deeply";
        }
    } catch (const json::exception& error) {
        if (problem != nullptr) {
            *problem = plain_reason(error.what());
        }
    }
    return {};
}

std::optional<json> read_json_file(const std::string& path) {
    const open_file file(path);
    if (file.descriptor() < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    if (file.descriptor() < 0) {
        fail(path, std::strerror(errno));
    }
    std::string problem;
    json parsed = parse_json(contents_of(file.descriptor(), path), &problem);
    if (!problem.empty()) {
        fail(path, problem);
    }
    return parsed;
}

}  // namespace scc::sccd
