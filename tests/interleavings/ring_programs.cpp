// The class of the two hand-off rings, with two slots.
#include <limits>

#include "program.h"
#include "util/handoff_ring.h"

namespace interleavings {
namespace {

constexpr std::size_t slots = 2;

// Values 1, 2, ... in the order of the pushes that succeeded. `Before` values went through the ring earlier,
// so the first slot differs between the programs.
template <int Before>
class ring : public actors {
  public:
    ring() {
        for (int i = 0; i < Before; ++i) {
            int value = 0;
            require(ring_.push(-1) && ring_.pop(value), "The ring does not hold one value.");
        }
    }
    void finish() override {
        for (int value = 0; ring_.pop(value);) {
            came(value);
        }
        require(taken_.get() == given_.get(), "A value is lost.");
        require(ring_.empty(), "A ring that nothing is left in is not empty.");
    }

  protected:
    void push() {
        if (ring_.push(given_.get() + 1)) {
            given_.add(1);
        }
    }
    void pop() {
        if (int value = 0; ring_.pop(value)) {
            came(value);
        }
    }
    void came(int value) {
        require(value == taken_.add(1), "A value came out of order, twice or not at all.");
    }

    scc::handoff_ring<int, slots> ring_{};
    ghost<int> given_;
    ghost<int> taken_;
};

template <int Before>
class push_and_pop : public ring<Before> {
  public:
    void run(unsigned thread) override {
        for (int i = 0; i < 4; ++i) {
            thread == 1 ? this->push() : this->pop();
        }
    }
};

// The value that is seen ahead is the one that comes later.
class peek_ahead : public ring<1> {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            push();
            push();
            push();
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (int later = 0; ring_.peek(1, later)) {
                require(later == taken_.get() + 2, "What was seen ahead is not what comes.");
            }
            pop();
        }
    }
};

// A third thread may ask whether the ring is empty and how many values were taken.
class asked_meanwhile : public ring<0> {
  public:
    void run(unsigned thread) override {
        if (thread == 1) {
            push();
            push();
        } else if (thread == 2) {
            pop();
            pop();
        } else {
            (void)ring_.empty();
            require(ring_.taken() <= 2, "More was taken than given.");
        }
    }
};

constexpr bounds all{};

constexpr program programs[] = {
    {"a ring hands each value over once and in order", 2, all, all, make<push_and_pop<0>>},
    {"a ring does so across its last slot", 2, all, all, make<push_and_pop<1>>},
    {"what is seen ahead in a ring comes out", 2, all, all, make<peek_ahead>},
    {"a third thread may ask about a ring", 3, all, all, make<asked_meanwhile>},
};

}  // namespace

std::span<const program> ring_programs() {
    return programs;
}

}  // namespace interleavings
