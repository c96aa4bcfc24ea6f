/**
 * Brings a file that is being written to the disk now and then, so that a power failure takes little of it.
 */
#ifndef DISK_SYNC_H
#define DISK_SYNC_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

/** On a thread of its own: a slow disk holds nobody up. */
class disk_sync {
public:
    /** Seconds between; 0: never. */
    disk_sync(int descriptor, double interval);
    disk_sync(const disk_sync&) = delete;
    disk_sync& operator=(const disk_sync&) = delete;
    ~disk_sync() { finish(); }

    /** Once everything has been written: the last time. Returns the errno of what went wrong, or 0. */
    int finish();

private:
    void sync();

    int descriptor_ = -1; // one of its own
    std::mutex mutex_;    // protects nothing: there is only one to wait
    std::condition_variable_any stopped_;
    std::atomic<int> error_ = 0;
    std::jthread thread_;
};

#endif
