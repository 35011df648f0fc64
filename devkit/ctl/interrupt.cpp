#include "interrupt.h"

#include <csignal>

namespace scc::ctl {
namespace {

volatile std::sig_atomic_t flag = 0;

void on_interrupt(int) {
    flag = 1;
}

}  // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = &on_interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() {
    return flag != 0;
}

void forget_interrupt() {
    flag = 0;
}

}  // namespace scc::ctl
