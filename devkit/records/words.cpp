#include "words.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "hex_digit.h"

namespace scc::records {
namespace {

bool is_blank(char letter) {
    return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\n';
}

}  // namespace

void word_reader::skip_blanks() {
    while (at_ < text_.size() && is_blank(text_[at_])) {
        ++at_;
    }
}

string_view word_reader::peek() const {
    std::size_t end = at_;
    while (end < text_.size() && !is_blank(text_[end])) {
        ++end;
    }
    return {text_.data() + at_, end - at_};
}

string_view word_reader::take(const char* what) {
    const string_view word = peek();
    if (word.empty()) {
        fail(word, "%s is missing", what);
        return word;
    }
    at_ += word.size();
    skip_blanks();
    return word;
}

bool word_reader::take_if(string_view word) {
    if (done() || peek() != word) {
        return false;
    }
    take("");
    return true;
}

string_view word_reader::take_quoted(const char* what) {
    if (done() || text_[at_] != '"') {
        return take(what);
    }
    const std::size_t begin = at_ + 1;
    std::size_t end = begin;
    while (end < text_.size() && text_[end] != '"') {
        ++end;
    }
    if (end == text_.size()) {
        fail(peek(), "the quote is not closed");
        return {};
    }
    at_ = end + 1;
    if (at_ < text_.size() && !is_blank(text_[at_])) {
        fail(peek(), "a blank must follow the closing quote");
    }
    skip_blanks();
    return {text_.data() + begin, end - begin};
}

bool word_reader::fail(string_view word, const char* format, ...) {
    if (!failed_ && error_ != nullptr) {
        error_->offset = static_cast<std::uint32_t>(word.data() - text_.data());
        std::va_list values;
        va_start(values, format);
        std::vsnprintf(error_->text, sizeof error_->text, format, values);
        va_end(values);
    }
    failed_ = true;
    return false;
}

std::uint64_t word_reader::number(string_view word, const char* what, std::uint64_t min, std::uint64_t max) {
    const auto value = parse_number(word, min, max);
    if (!value) {
        fail(word, "%s '%.*s' is not a number from %llu to %llu", what, static_cast<int>(word.size()),
             word.data(), static_cast<unsigned long long>(min), static_cast<unsigned long long>(max));
        return min;
    }
    return *value;
}

std::optional<std::uint64_t> parse_number(string_view text, std::uint64_t min, std::uint64_t max) {
    const bool is_hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const unsigned base = is_hex ? 16 : 10;
    if (is_hex) {
        text.remove_prefix(2);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char letter : text) {
        const int digit = hex_digit(letter);
        if (digit < 0 || static_cast<unsigned>(digit) >= base) {
            return std::nullopt;
        }
        const auto added = static_cast<unsigned>(digit);
        if (value > (UINT64_MAX - added) / base) {
            return std::nullopt;
        }
        value = value * base + added;
    }
    if (value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

bool parse_mac(string_view text, std::uint8_t* mac) {
    const bool has_colons = text.size() == 17;
    if (!has_colons && text.size() != 14) {
        return false;
    }
    const std::size_t group = has_colons ? 2 : 4;
    std::uint8_t bytes[6] = {};
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i % (group + 1) == group) {
            if (text[i] != (has_colons ? ':' : '.')) {
                return false;
            }
            continue;
        }
        const int digit = hex_digit(text[i]);
        if (digit < 0) {
            return false;
        }
        bytes[digits / 2] = static_cast<std::uint8_t>(bytes[digits / 2] << 4 | digit);
        ++digits;
    }
    std::memcpy(mac, bytes, sizeof bytes);
    return true;
}

c_string::c_string(string_view word) : text{} {
    std::memcpy(text, word.data(), std::min(word.size(), sizeof text - 1));
}

text_writer::text_writer(char* buffer, std::size_t size)
    : buffer_(buffer), size_(buffer == nullptr ? 0 : size) {
    if (size_ != 0) {
        buffer_[0] = '\0';
    }
}

void text_writer::add(const char* format, ...) {
    const std::size_t used = std::min(length_, size_);
    std::va_list values;
    va_start(values, format);
    const int len = std::vsnprintf(size_ == 0 ? nullptr : buffer_ + used, size_ - used, format, values);
    va_end(values);
    length_ += len > 0 ? static_cast<std::size_t>(len) : 0;
}

void text_writer::add_mac(const std::uint8_t* mac) {
    add("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void text_writer::add_ip(int family, const std::uint8_t* address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    add("%s", text);
}

std::uint32_t refuse(scc_records_error* error, const char* text) {
    if (error != nullptr) {
        error->offset = 0;
        std::snprintf(error->text, sizeof error->text, "%s", text);
    }
    return result_invalid;
}

}  // namespace scc::records
