/**
 * The ways in which a command that listens comes to its end: signals, and a device that delivers nothing any more.
 */
#ifndef STOPPING_H
#define STOPPING_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/** From here on Ctrl-C, SIGTERM and a closed terminal end a command in good order. A second one ends the program. */
void stop_on_signals();

/** Whether one of these signals has come. */
bool stop_requested();

/** A closed pipe and a full quota are errors of the write that runs into them, not the death of the program. */
void ignore_write_signals();

/**
 * Ends the program in good order when a device delivers nothing any more: a blocking read of PortAudio's then never
 * returns, whatever signal comes.
 */
class stall_guard {
public:
    enum class reason { no_sound, stop_requested };

    /**
     * `rescue` saves what there is and says so; it returns the exit code. It runs on another thread, while the thread
     * that listens is stuck in the device and can do no harm.
     */
    explicit stall_guard(std::function<int(reason)> rescue);
    ~stall_guard();
    stall_guard(const stall_guard&) = delete;
    stall_guard& operator=(const stall_guard&) = delete;

    /** Runs `read`, which may block for ever. */
    template <class Read>
    void watch(Read read) {
        set_listening(true);
        read();
        set_listening(false);
    }

private:
    void set_listening(bool starts);
    void run();

    const std::function<int(reason)> rescue_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool ends_ = false;
    bool listening_ = false;
    std::chrono::steady_clock::time_point since_;
    std::thread thread_;
};

#endif
