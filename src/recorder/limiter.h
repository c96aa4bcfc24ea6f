// A look-ahead peak limiter. What a sample needs so as not to exceed the ceiling is known a look-ahead before it is
// given: the gain falls to it in a straight line, and recovers exponentially.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace recorder {

class limiter {
public:
    limiter(int32_t rate, float ceiling_db, float release_ms)
        : look_ahead_(static_cast<std::size_t>(std::max(1L, std::lround(rate * 0.005)))),
          ceiling_(std::pow(10.0F, ceiling_db / 20.0F)),
          recovery_(release_ms > 0.0F ? 1.0 - std::exp(-1000.0 / (static_cast<double>(release_ms) * rate)) : 1.0) {
        reset();
    }

    // Samples that go in before the first one comes out.
    std::size_t look_ahead() const { return look_ahead_; }

    // Samples that have gone in.
    uint64_t taken() const { return taken_; }

    // Takes a sample and gives the one a look-ahead before it.
    float process(float sample) {
        const std::size_t at = taken_++ % look_ahead_; // in the rings
        const double gain = next_gain(sample, gains_[at]);
        const float given = std::exchange(samples_[at], sample);
        return std::clamp(static_cast<float>(static_cast<double>(given) * gain), -ceiling_, ceiling_);
    }

    void reset() {
        samples_.assign(look_ahead_, 0.0F);
        gains_.assign(look_ahead_, 1.0);
        sum_ = static_cast<double>(look_ahead_);
        gain_ = 1.0;
        needs_.clear();
        taken_ = 0;
    }

private:
    // Gains are whole multiples of 1 / steps: sums of them are exact, so that no error gathers in a running sum, and the
    // gain returns to 1 and not only close to it.
    static constexpr double steps = 1099511627776.0; // 2 to the 40th

    struct need {
        uint64_t until;
        double gain;
    };

    // The mean of the newest gains, of which the oldest makes room for the next.
    double next_gain(float sample, double& oldest) {
        if (!needs_.empty() && needs_.front().until < taken_) needs_.pop_front();
        if (std::abs(sample) > ceiling_) {
            const double needed = static_cast<double>(ceiling_) / static_cast<double>(std::abs(sample));
            const double gain = std::floor(needed * steps) / steps;
            while (!needs_.empty() && needs_.back().gain >= gain)
                needs_.pop_back();
            needs_.push_back({taken_ + look_ahead_, gain});
        }
        gain_ = std::min(1.0, std::ceil((gain_ + (1.0 - gain_) * recovery_) * steps) / steps);
        if (!needs_.empty()) gain_ = std::min(gain_, needs_.front().gain);
        sum_ += gain_ - std::exchange(oldest, gain_);
        return sum_ / static_cast<double>(look_ahead_);
    }

    const std::size_t look_ahead_;
    const float ceiling_;
    const double recovery_;      // share of the way back to 1 in a sample
    std::vector<float> samples_; // a ring: those that wait
    std::vector<double> gains_;  // a ring: what the mean is made of
    double sum_ = 0.0;           // of these
    double gain_ = 1.0;          // the newest of these
    std::deque<need> needs_;     // of samples in the look-ahead; each is less than those behind it
    uint64_t taken_ = 0;
};

} // namespace recorder
