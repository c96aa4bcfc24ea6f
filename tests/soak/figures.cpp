#include "figures.h"

#include <malloc.h>
#include <pthread.h>
#include <valgrind/valgrind.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace soak {

namespace {

constexpr const char* names[] = {"malloc'd, bytes", "resident, KiB", "descriptors", "threads", "thread keys"};

long entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

// Not from statm, whose count the kernel brings up to date in batches of many pages.
long resident_kib() {
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        long kib = 0;
        if (word == "Rss:" && file >> kib) return kib;
    }
    throw std::runtime_error("no Rss in /proc/self/smaps_rollup");
}

long keys_in_use() {
    std::vector<pthread_key_t> free;
    free.reserve(PTHREAD_KEYS_MAX);
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0;)
        free.push_back(key);
    for (const pthread_key_t key : free)
        pthread_key_delete(key);
    return PTHREAD_KEYS_MAX - static_cast<long>(free.size());
}

} // namespace

figures figures_now() {
    const struct mallinfo2 heap = mallinfo2();
    return {static_cast<long>(heap.uordblks + heap.hblkhd), resident_kib(), entries("/proc/self/fd"),
            entries("/proc/self/task"), keys_in_use()};
}

series::series(std::string name, long steps, const figures& start)
    : name_(std::move(name)), steps_(steps), start_(start) {
    if (steps < 10) throw std::invalid_argument(name_ + ": at least ten steps");
}

void series::after(long step) {
    const long part = 20 * step / steps_;
    if (part < 2 || part == 20 * (step - 1) / steps_) return;
    end_ = figures_now();
    if (samples_++ == 0) warm_ = highest_ = end_;
    for (std::size_t i = 0; i < figure_count; ++i)
        highest_[i] = std::max(highest_[i], end_[i]);
}

figures series::growth() const {
    figures result{};
    for (std::size_t i = 0; i < figure_count; ++i)
        result[i] = highest_[i] - warm_[i];
    return result;
}

bool series::report(const figures& bound) const {
    if (samples_ < 10) throw std::logic_error(name_ + ": too few samples");
    print(&bound);
    if (RUNNING_ON_VALGRIND) return true;
    const figures grown = growth();
    bool good = true;
    for (std::size_t i = 0; i < figure_count; ++i) {
        if (grown[i] <= bound[i]) continue;
        std::printf("soak: FAILED: %s: %s grew by %ld\n", name_.c_str(), names[i], grown[i]);
        good = false;
    }
    return good;
}

void series::report_unjudged() const {
    print(nullptr);
}

void series::print(const figures* bound) const {
    // Valgrind's memory is not the process's, and grows. What is lost is for valgrind itself to say.
    if (RUNNING_ON_VALGRIND) {
        std::printf("%s\n", name_.c_str());
        std::fflush(stdout);
        return;
    }
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin_;
    std::printf("\n%s (%.1f s, %d samples)\n%-18s%12s%12s%12s%12s%12s%12s\n", name_.c_str(), taken.count(), samples_,
                "", "start", "warm", "highest", "end", "growth", "allowed");
    const figures grown = growth();
    for (std::size_t i = 0; i < figure_count; ++i) {
        std::printf("%-18s%12ld%12ld%12ld%12ld%12ld%12s\n", names[i], start_[i], warm_[i], highest_[i], end_[i],
                    grown[i], bound != nullptr ? std::to_string((*bound)[i]).c_str() : "-");
    }
    std::fflush(stdout);
}

figures allowed_beside(const series& bare) {
    figures allowed = bare.growth();
    // The bare run came first, and may have found room that was resident already.
    allowed[resident] = std::max(allowed[resident], allowed[allocated] / 1024);
    for (std::size_t i = 0; i < figure_count; ++i)
        allowed[i] += bounds[i];
    return allowed;
}

} // namespace soak
