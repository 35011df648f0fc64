// A small program of two or three threads, with what must hold in each of its executions.
#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "scheduler.h"

namespace interleavings {

// One execution. Constructed on the main thread before its threads begin; what the constructor does happens
// before them, and what finish() does after them. Threads must not own memory across an operation.
class actors {
  public:
    actors() = default;
    virtual ~actors() = default;
    actors(const actors&) = delete;
    actors& operator=(const actors&) = delete;

    virtual void run(unsigned thread) = 0;  // from 1
    virtual void finish() {}
};

struct program {
    std::string_view name;  // a sentence
    unsigned threads;
    bounds quick;  // of the tests
    bounds deep;   // of ./run interleavings
    std::unique_ptr<actors> (*make)();
};

template <class Actors>
std::unique_ptr<actors> make() {
    return std::make_unique<Actors>();
}

// What is violated when `holds` is false.
inline void require(bool holds, const char* what) {
    if (!holds) {
        violate("%s", what);
    }
}

// An operation that all threads see: what a program notes after it, it notes in the order of these.
void step(const char* name = "steps");

// What a program notes for its own checks: neither an operation nor a race.
template <class T>
class ghost {
  public:
    ghost() = default;
    explicit ghost(T value) : value_(std::move(value)) {}
    __attribute__((no_sanitize("thread"), noinline)) T get() const { return value_; }
    __attribute__((no_sanitize("thread"), noinline)) void set(T value) { value_ = value; }
    __attribute__((no_sanitize("thread"), noinline)) T add(T more) {
        return value_ = static_cast<T>(value_ + more);
    }

  private:
    T value_{};
};

[[nodiscard]] std::span<const program> ring_programs();
[[nodiscard]] std::span<const program> call_programs();
[[nodiscard]] std::span<const program> descriptor_programs();
[[nodiscard]] std::span<const program> lifetime_programs();

}  // namespace interleavings
