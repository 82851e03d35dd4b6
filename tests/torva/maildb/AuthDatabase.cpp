#include "torva/maildb/AuthDatabase.h"

#include <csignal>
#include <sys/time.h>

namespace torva::test {

namespace {

void ignore(int /*signal*/) {}

void set_timer(suseconds_t microseconds) {
    itimerval timer{};
    timer.it_interval.tv_usec = microseconds;
    timer.it_value.tv_usec = microseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace

Interruptions::Interruptions() {
    struct sigaction action {};
    action.sa_handler = ignore;
    sigaction(SIGALRM, &action, nullptr);
    set_timer(300);
}

Interruptions::~Interruptions() {
    set_timer(0);
    std::signal(SIGALRM, SIG_DFL);
}

} // namespace torva::test
