#include "stopping.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <utility>

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

stall_guard::stall_guard(std::function<int(reason)> rescue) : rescue_(std::move(rescue)) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former); // the new thread inherits it: signals wake the one that listens
    thread_ = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

stall_guard::~stall_guard() {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    ended_.notify_one();
    thread_.join();
}

void stall_guard::set_listening(bool starts) {
    const std::lock_guard lock(mutex_);
    listening_ = starts;
    since_ = std::chrono::steady_clock::now();
}

void stall_guard::run() {
    using namespace std::chrono_literals;
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, 200ms, [this] { return ends_; })) {
        const auto waited = listening_ ? std::chrono::steady_clock::now() - since_ : 0ns;
        if (waited < (stop_requested() ? 1s : 5s)) continue;
        // The lock stays: should the read return after all, its thread stops right behind it.
        const int code = rescue_(stop_requested() ? reason::stop_requested : reason::no_sound);
        std::fflush(nullptr);
        _exit(code);
    }
}
