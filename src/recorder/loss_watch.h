// Sound that the system lost before the core could read it. The core does not pass on PortAudio's report of it, but the
// clock shows it: what a device has delivered falls behind by a step, and never catches up. Whatever was only late, in
// the buffers of a sound server or of a busy machine, does catch up; and clocks drift apart slowly.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace recorder {

class loss_watch {
public:
    explicit loss_watch(int32_t rate) : rate_(rate) {}

    // A block of `count` samples arrived at `seconds` of a clock that does not jump. Returns how many samples are now
    // known to have been lost since the last report: about half a second later, and only losses of 0.1 s or more.
    uint64_t add(double seconds, std::size_t count) {
        delivered_ += static_cast<double>(count);
        if (size_ == arrivals_.size()) forget_oldest();
        last_lateness_ = seconds - delivered_ / rate_;
        arrivals_[(first_ + size_++) % arrivals_.size()] = {seconds, last_lateness_};
        if (seconds - arrivals_[first_].at < patience) return 0;
        const double lateness = least_lateness();
        forget_oldest();
        const double step = lateness - usual_lateness_.value_or(lateness);
        if (step >= smallest_loss) size_ = 0; // the arrivals before the next one are accounted for
        if (!usual_lateness_ || step < 0.0 || step >= smallest_loss)
            usual_lateness_ = lateness;
        else
            *usual_lateness_ += largest_drift * static_cast<double>(count) / rate_;
        return step >= smallest_loss ? static_cast<uint64_t>(step * rate_) : 0;
    }

    // By how many seconds the last block came later than blocks usually do, as far as that is known.
    double excess() const { return std::max(0.0, last_lateness_ - usual_lateness_.value_or(last_lateness_)); }

private:
    struct arrival {
        double at;
        double lateness; // seconds, relative to a constant that does not matter
    };
    static constexpr double patience = 0.5;       // seconds
    static constexpr double smallest_loss = 0.1;  // seconds
    static constexpr double largest_drift = 1e-3; // seconds in a second

    double least_lateness() const {
        double least = arrivals_[first_].lateness;
        for (std::size_t i = 1; i < size_; ++i)
            least = std::min(least, arrivals_[(first_ + i) % arrivals_.size()].lateness);
        return least;
    }
    void forget_oldest() {
        first_ = (first_ + 1) % arrivals_.size();
        --size_;
    }

    const double rate_;
    std::array<arrival, 64> arrivals_{}; // a ring
    std::size_t first_ = 0;
    std::size_t size_ = 0;
    double delivered_ = 0.0;
    double last_lateness_ = 0.0;
    std::optional<double> usual_lateness_;
};

} // namespace recorder
