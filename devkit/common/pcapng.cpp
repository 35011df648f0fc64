#include "common/pcapng.h"

#include <array>
#include <cstring>
#include <utility>

namespace scc::devkit::pcapng {
namespace {

constexpr u32 section_block = 0x0a0d0d0a;
constexpr u32 interface_block = 1;
constexpr u32 packet_block = 6;
constexpr u32 byte_order = 0x1a2b3c4d;
constexpr u16 version_major = 1;
constexpr u64 unknown_length = ~u64{0};

constexpr u16 option_end = 0;
constexpr u16 option_program = 4;     // of a section
constexpr u16 option_name = 2;        // of an interface
constexpr u16 option_resolution = 9;  // of an interface: digits after the second's point
constexpr u16 option_lost = 4;        // of a packet
constexpr u8 nanoseconds = 9;

// A block: its type, its length, the contents, and the length again.
class block {
  public:
    explicit block(u32 type) { number(type).number(u32{0}); }

    template <class Number>
    block& number(Number value) {
        std::array<u8, sizeof value> bytes{};
        std::memcpy(bytes.data(), &value, sizeof value);
        return raw(bytes);
    }
    block& raw(byte_view bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    block& align() {
        bytes_.resize((bytes_.size() + 3) / 4 * 4);
        return *this;
    }
    block& option(u16 code, byte_view value) {
        return number(code).number(static_cast<u16>(value.size())).raw(value).align();
    }
    block& option(u16 code, std::string_view text) {
        return option(code, byte_view(reinterpret_cast<const u8*>(text.data()), text.size()));
    }
    [[nodiscard]] byte_buffer take() {
        const u32 len = static_cast<u32>(bytes_.size() + sizeof(u32));
        number(len);
        write_at(bytes_, sizeof(u32), len);
        return std::move(bytes_);
    }

  private:
    byte_buffer bytes_;
};

}  // namespace

byte_buffer beginning(std::string_view program) {
    byte_buffer all = block(section_block)
                          .number(byte_order)
                          .number(version_major)
                          .number(u16{0})
                          .number(unknown_length)
                          .option(option_program, program)
                          .option(option_end, byte_view())
                          .take();
    const byte_buffer interface = block(interface_block)
                                      .number(link_type)
                                      .number(u16{0})
                                      .number(u32{0})  // no packet is cut
                                      .option(option_name, "sccd")
                                      .option(option_resolution, byte_view(&nanoseconds, 1))
                                      .option(option_end, byte_view())
                                      .take();
    all.insert(all.end(), interface.begin(), interface.end());
    return all;
}

byte_buffer packet(u64 time_ns, const packet_header& header, byte_view message, u64 lost) {
    const u32 len = static_cast<u32>(header_bytes + message.size());
    block made(packet_block);
    made.number(u32{0})  // the interface
        .number(static_cast<u32>(time_ns >> 32))
        .number(static_cast<u32>(time_ns))
        .number(len)
        .number(len)
        .number(header_version)
        .number(static_cast<u8>(header.direction))
        .number(static_cast<u8>(header.socket))
        .number(u8{0})
        .number(header.app)
        .number(header.pid)
        .raw(message)
        .align();
    if (lost != 0) {
        byte_buffer count(sizeof lost);
        write_at(count, 0, lost);
        made.option(option_lost, count).option(option_end, byte_view());
    }
    return made.take();
}

}  // namespace scc::devkit::pcapng
