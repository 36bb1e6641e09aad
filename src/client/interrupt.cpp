#include "interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "exit_status.h"

namespace {
std::atomic<bool> asked{false};

void on_signal(int) {
    if (asked.exchange(true)) _exit(EXIT_INTERRUPTED);
}
}  // namespace

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (int signal_number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal_number, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

bool interrupted() {
    return asked;
}
