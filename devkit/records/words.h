// The words of a text that is parsed, and where the first error was found. Shared by the parsers of ACEs and
// of configuration records.
//
// This folder uses the C library alone: no exceptions, nothing of the C++ run-time library. A C program can
// therefore link the static library. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "scc_records.h"

namespace scc::records {

using std::string_view;

inline constexpr std::uint32_t result_ok = 0;
inline constexpr std::uint32_t result_absent = 2;    // ENOENT
inline constexpr std::uint32_t result_invalid = 22;  // EINVAL

// string_view::substr without an exception: a place after the end gives an empty view there.
[[nodiscard]] constexpr string_view part(string_view word, std::size_t begin,
                                         std::size_t count = string_view::npos) {
    begin = begin < word.size() ? begin : word.size();
    count = count < word.size() - begin ? count : word.size() - begin;
    return {word.data() + begin, count};
}

// Splits a text at blanks. Copying a reader and reading on in the copy looks ahead.
class word_reader {
  public:
    // The errors of one text go to one place; it may be null.
    word_reader(string_view text, scc_records_error* error) : text_(text), error_(error) { skip_blanks(); }

    [[nodiscard]] bool done() const { return at_ == text_.size(); }
    [[nodiscard]] bool failed() const { return failed_; }
    [[nodiscard]] string_view peek() const;
    // The next word. If there is none, fails with "`what` is missing" and returns an empty word.
    string_view take(const char* what);
    bool take_if(string_view word);
    // The next word, or what stands between quotes.
    string_view take_quoted(const char* what);

    // Records an error at the beginning of `word`, which is part of the text. The first error stays. Returns
    // false.
    [[gnu::format(printf, 3, 4)]] bool fail(string_view word, const char* format, ...);

    std::uint64_t number(string_view word, const char* what, std::uint64_t min, std::uint64_t max);

  private:
    void skip_blanks();

    string_view text_;
    std::size_t at_ = 0;
    scc_records_error* error_;
    bool failed_ = false;
};

// A number, decimal or with 0x, within [min, max].
[[nodiscard]] std::optional<std::uint64_t> parse_number(string_view text, std::uint64_t min,
                                                        std::uint64_t max);

// "00:11:22:33:44:55" or "0011.2233.4455", into 6 bytes.
[[nodiscard]] bool parse_mac(string_view text, std::uint8_t* mac);

// A word as a C string, cut to what an address or a service's name can need.
struct c_string {
    explicit c_string(string_view word);
    char text[64];
};

// Appends to a buffer as snprintf does.
class text_writer {
  public:
    text_writer(char* buffer, std::size_t size);
    [[gnu::format(printf, 2, 3)]] void add(const char* format, ...);
    void add_mac(const std::uint8_t* mac);
    // family is AF_INET or AF_INET6.
    void add_ip(int family, const std::uint8_t* address);
    [[nodiscard]] std::size_t length() const { return length_; }

  private:
    char* buffer_;
    std::size_t size_;
    std::size_t length_ = 0;
};

// Writes an error without a place, and returns result_invalid.
std::uint32_t refuse(scc_records_error* error, const char* text);

}  // namespace scc::records
