#include "disk_sync.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

disk_sync::disk_sync(int descriptor, double interval) {
    struct stat opened {};
    fstat(descriptor, &opened);
    if (interval <= 0 || !S_ISREG(opened.st_mode)) return;
    descriptor_ = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    thread_ = std::jthread([this, interval](const std::stop_token& stop) {
        std::unique_lock hold(mutex_);
        for (bool last = false; !last;) {
            stopped_.wait_for(hold, stop, std::chrono::duration<double>(interval), [] { return false; });
            last = stop.stop_requested();
            sync();
        }
    });
}

int disk_sync::finish() {
    if (!thread_.joinable()) return error_;
    thread_.request_stop();
    thread_.join(); // it has synchronised once more, with everything
    close(descriptor_);
    return error_;
}

void disk_sync::sync() {
    if (fdatasync(descriptor_) != 0 && error_ == 0) error_ = errno;
}
