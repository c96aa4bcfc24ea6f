#include "stopping.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t requested = 0;

extern "C" void request_stop(int /*number*/) {
    requested = 1;
}

} // namespace

void stop_on_signals() {
    struct sigaction action {};
    action.sa_handler = request_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction former {};
        sigaction(number, nullptr, &former);
        if (former.sa_handler != SIG_IGN) sigaction(number, &action, nullptr); // nohup wants SIGHUP ignored
    }
}

bool stop_requested() {
    return requested != 0;
}

void ignore_write_signals() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}
