// A stream of samples in which each has its place in time: what was lost is silence.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

namespace recorder {

// Not locked. Positions are in samples since the first one, lost ones included.
//
// A sample is never known before it was captured, and often later. So how late it really is, relative to its number, is
// how late the most punctual one is that arrives within a second from it on, in which a time without arrivals does not
// count: a device that stood still and then delivers everything is not late for good, and one that has lost samples is,
// from the first sample after them.
class timeline {
public:
    explicit timeline(int32_t rate) : rate_(rate) {}

    // What is later for good, or earlier, by as much as this, has lost samples; clocks drift by less in a second.
    static constexpr double tolerance = 0.015; // seconds

    // Samples of which the last was captured at `seconds` of a clock, or somewhat earlier.
    void add(std::span<const float> samples, double seconds);
    void settle(double now); // those that arrived a second before, even if nothing has come since
    void finish();           // no more are to come

    bool has_ended() const { return ended_; }
    bool is_empty() const { return !lateness_; }
    uint64_t known() const { return position_; } // samples whose place is known
    double heard_until() const { return heard_until_; }
    double active() const { return active_; } // seconds with arrivals

    // Copies samples from a position on, with zeros where there are none.
    void copy(int64_t begin, std::span<float> to) const;

    // How late samples are whose place is known, in seconds; and how long there had been arrivals when they came.
    struct place {
        uint64_t end;
        double lateness;
        double active;
    };
    place place_of(int64_t position) const;

    // What is before a position is not asked for any more.
    void forget(int64_t before);

private:
    static constexpr double patience = 1.0; // seconds
    static constexpr double evidence = 0.3; // seconds, at the end
    static constexpr double moment = 0.005; // seconds, in which arrivals are one
    static constexpr double pause = 0.1;    // seconds, of which more do not count

    struct arrival {
        std::size_t count;
        double at;
        double active;
        double lateness; // of raw samples
    };
    struct stretch { // of samples among which none is missing
        uint64_t begin;
        std::deque<float> samples;
    };
    void settle_oldest();

    const double rate_;
    std::deque<arrival> arrivals_; // whose places are not known yet
    std::deque<float> waiting_;    // their samples
    std::deque<stretch> stretches_;
    std::deque<place> places_;
    uint64_t added_ = 0;
    uint64_t lost_ = 0;
    uint64_t position_ = 0;
    double heard_until_ = 0.0;
    double active_ = 0.0;
    std::optional<double> lateness_; // of the last place
    bool ended_ = false;
};

} // namespace recorder
