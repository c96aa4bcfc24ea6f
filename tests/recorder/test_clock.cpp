#include "test_clock.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace test_clock {

namespace {

constexpr int64_t second = 1'000'000'000;

std::atomic<bool> g_frozen{false};
std::atomic<bool> g_waits_pass{false};
std::atomic<int64_t> g_time{0}; // while it stands still, and where it went on
std::atomic<int64_t> g_slowness{1};
std::atomic<int64_t> g_released{0}; // by the machine's clock
std::atomic<int> g_waiting{0};

int64_t machines_time() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * second + time.tv_nsec;
}

int64_t now() {
    return g_frozen ? g_time.load() : g_time + (machines_time() - g_released) / g_slowness;
}

timespec as_timespec(int64_t time) {
    return {time / second, time % second};
}

int64_t from_timespec(const timespec& time) {
    return time.tv_sec * second + time.tv_nsec;
}

// Whether somebody who has waited for a while without being woken has waited until `end`.
bool is_over(int64_t end) {
    for (int64_t time = g_time; g_waits_pass && time < end;)
        g_time.compare_exchange_weak(time, end);
    return now() >= end;
}

} // namespace

void freeze() {
    g_time = machines_time();
    g_waits_pass = false;
    g_frozen = true;
}

void release(int slowness) {
    g_slowness = slowness;
    g_time = g_released = machines_time();
    g_frozen = false;
}

void skip(nanoseconds time) {
    g_time += time.count();
}

void let_waits_pass(bool pass) {
    g_waits_pass = pass;
}

int waiting() {
    return g_waiting;
}

} // namespace test_clock

using namespace test_clock;

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* end);

int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return now();
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* end) {
    if (!g_frozen) {
        const timespec machines_end = as_timespec(g_released + (from_timespec(*end) - g_time) * g_slowness);
        return __real_pthread_cond_clockwait(condition, mutex, clock, &machines_end);
    }
    const timespec soon = as_timespec(machines_time() + second / 100);
    ++g_waiting;
    const int result = __real_pthread_cond_clockwait(condition, mutex, clock, &soon);
    --g_waiting;
    return result != ETIMEDOUT ? result : is_over(from_timespec(*end)) ? ETIMEDOUT : 0;
}

// The thread sanitizer of GCC 12 knows no pthread_mutex_clocklock().
int __wrap_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t /*clock*/, const timespec* end) {
    for (int tries = 0;; ++tries) {
        if (pthread_mutex_trylock(mutex) == 0) return 0;
        if (tries > 20 ? is_over(from_timespec(*end)) : now() >= from_timespec(*end)) return ETIMEDOUT;
        const timespec pause{0, second / 1000};
        nanosleep(&pause, nullptr);
    }
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

} // extern "C"
