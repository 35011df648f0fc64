// A small program of two or three threads, with its invariants.
#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "scheduler.h"

namespace interleavings {

// One execution. It is constructed on the main thread before the threads start; finish() runs after they have
// ended. A thread must not own memory across an operation.
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

// Reports the violation `what` if `holds` is false.
inline void require(bool holds, const char* what) {
    if (!holds) {
        violate("%s", what);
    }
}

// An operation that all threads see. It orders what the program records in ghosts after it.
void step(const char* name = "steps");

// A value that exists only for the program's checks: accesses are neither operations nor races.
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
