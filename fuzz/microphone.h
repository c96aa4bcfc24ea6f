// What the fuzzed devices hear: a function of the read's number, so that the expectation can hear it again.
#pragma once

#include "script.h"

#include <bit>
#include <cstdint>
#include <vector>

class microphone {
public:
    // Silence, ordinary noise, noise of any bits, or a pattern from the script over and over.
    void choose(script& bytes) {
        kind_ = bytes.below(4);
        pattern_.assign(1, 0.0F);
        if (kind_ != 3) return;
        pattern_.resize(1 + bytes.below(16));
        for (float& sample : pattern_)
            sample = bytes.number<float>();
    }

    void hear(std::uint32_t read, float* samples, unsigned long count) const {
        std::uint32_t state = read * 2654435761U + 1U;
        for (unsigned long i = 0; i < count; ++i) {
            state = state * 1664525U + 1013904223U;
            switch (kind_) {
            case 1:
                samples[i] = static_cast<float>(static_cast<std::int32_t>(state)) * (1.1F / 2147483648.0F);
                break;
            case 2:
                samples[i] = std::bit_cast<float>(state);
                break;
            default:
                samples[i] = pattern_[i % pattern_.size()];
            }
        }
    }

    std::vector<float> heard(std::uint32_t read, std::int64_t count) const {
        std::vector<float> samples(static_cast<std::size_t>(count));
        hear(read, samples.data(), samples.size());
        return samples;
    }

private:
    unsigned kind_ = 0;
    std::vector<float> pattern_{0.0F};
};
