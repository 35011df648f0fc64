#include "interrupt.h"

#include <csignal>
#include <initializer_list>

namespace scc::ctl {
namespace {

volatile std::sig_atomic_t interrupt_flag = 0;
volatile std::sig_atomic_t termination_flag = 0;

void on_signal(int number) {
    if (number == SIGINT) {
        interrupt_flag = 1;
    } else {
        termination_flag = 1;
    }
}

}  // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = &on_signal;
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(number, &action, nullptr);
    }
}

bool interrupted() {
    return interrupt_flag != 0 || terminated();
}

bool terminated() {
    return termination_flag != 0;
}

void forget_interrupt() {
    interrupt_flag = 0;
}

}  // namespace scc::ctl
