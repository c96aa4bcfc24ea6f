// What a process holds, sampled through a run: it must not grow once the run is warm.
#pragma once

#include <array>
#include <chrono>
#include <string>

namespace soak {

// Memory of malloc in bytes, resident memory in KiB, open descriptors, threads, thread-specific keys of the 1024 that a
// process has.
enum figure { allocated, resident, descriptors, threads, keys, figure_count };
using figures = std::array<long, figure_count>;

figures figures_now();

// How much each figure may grow between the first tenth of a run and any later sample.
//
// - allocated: nothing grew in any run that was measured, as long as malloc keeps no cache per thread (scripts/soak
//   turns it off; a cache counts as allocated). The smallest allocation takes 32 bytes, so that one lost in each
//   thousand of the 90000 steps behind the warm-up of a short run makes 2880.
// - resident: the kernel counts pages of 4 KiB, and a few of code, stack and heap are touched late.
// - descriptors, threads and keys are counted while the run rests in the same state: one more is one too many.
constexpr figures bounds{1024, 256, 0, 0, 0};

// The samples of one run of `steps` equal steps.
class series {
public:
    series(std::string name, long steps, const figures& start);

    // To be called after each step, counted from 1, with the process at rest. Samples at the first tenth, which is the
    // warm-up, and at each twentieth from there on.
    void after(long step);

    figures growth() const;

    // Prints a table and returns whether nothing grew by more than its bound. The run must be complete.
    bool report(const figures& bound = bounds) const;

    // Prints the table of code that is not ours, and judges nothing.
    void report_unjudged() const;

private:
    void print(const figures* bound) const;

    std::string name_;
    long steps_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    figures start_;
    figures warm_{};
    figures highest_{};
    figures end_{};
    int samples_ = 0;
};

// What a run may grow where PortAudio grows as well when it is called alone, just as often.
figures allowed_beside(const series& bare);

} // namespace soak
