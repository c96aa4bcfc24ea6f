#include "threads.h"

#include "failure.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>

namespace recorder {

namespace {

std::atomic<uint32_t> g_abandoned_threads{0};

struct patient_call {
    std::mutex mutex;
    std::condition_variable changed;
    bool over = false;
    bool left_behind = false;
    failure failed;
};

} // namespace

std::thread start_thread(std::function<void()> action) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    try {
        std::thread started(std::move(action));
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
        return started;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
        throw;
    }
}

void count_abandoned(int32_t more) {
    g_abandoned_threads += static_cast<uint32_t>(more);
}

uint32_t abandoned_threads() {
    return g_abandoned_threads;
}

void run_with_patience(std::function<void()> action, std::chrono::milliseconds patience, const char* reason) {
    const auto call = std::make_shared<patient_call>();
    std::thread thread = start_thread([call, action = std::move(action)] {
        failure failed;
        try {
            action();
        } catch (failure& thrown) {
            failed = std::move(thrown);
        } catch (...) { // no memory
            failed.status = WRAPPER_AUDIO_OUT_OF_MEMORY;
        }
        const std::lock_guard hold{call->mutex};
        call->failed = std::move(failed);
        call->over = true;
        if (call->left_behind) count_abandoned(-1);
        call->changed.notify_all();
    });
    std::unique_lock hold{call->mutex};
    if (call->changed.wait_for(hold, patience, [&] { return call->over; })) {
        hold.unlock();
        thread.join();
        if (call->failed.status != WRAPPER_AUDIO_OK) throw call->failed;
        return;
    }
    call->left_behind = true;
    count_abandoned(1);
    thread.detach();
    throw failure{WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK, reason};
} // GCOVR_EXCL_BR_LINE: the thread has been joined or left behind

} // namespace recorder
