// Speech gates as the tests use them.
#pragma once

#include "wrapper_audio_recorder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

struct gate_release {
    void operator()(wrapper_audio_speech_gate* gate) const { wrapper_audio_speech_gate_free(gate); }
};
using gate_holder = std::unique_ptr<wrapper_audio_speech_gate, gate_release>;

inline wrapper_audio_speech_options defaults() {
    wrapper_audio_speech_options options;
    wrapper_audio_speech_defaults(&options);
    return options;
}

// Ones that make for short tests: two voiced frames are speech, three others end it.
inline wrapper_audio_speech_options brief(int32_t rate = 1000) {
    return {.rate = rate,
            .begin_threshold = 0.6F,
            .end_threshold = 0.4F,
            .min_speech_ms = 20,
            .hang_over_ms = 30,
            .pre_roll_ms = 20,
            .max_ms = 0,
            .reserved = {}};
}

inline gate_holder make(const wrapper_audio_speech_options& options) {
    wrapper_audio_speech_gate* gate = nullptr;
    EXPECT_EQ(wrapper_audio_speech_gate_create(&gate, &options), WRAPPER_AUDIO_OK);
    return gate_holder{gate};
}

// A frame for each character: a digit is the probability in tenths, '.' none at all.
inline std::vector<float> frames(const std::string& text) {
    std::vector<float> probabilities;
    for (const char each : text)
        probabilities.push_back(each == '.' ? 0.0F : static_cast<float>(each - '0') / 10.0F);
    return probabilities;
}

// Sample n has the value n.
inline std::vector<float> counted(std::size_t count) {
    std::vector<float> samples(count);
    for (std::size_t i = 0; i < count; ++i)
        samples[i] = static_cast<float>(i);
    return samples;
}
