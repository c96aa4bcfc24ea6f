// The voice chain: conversion to 48000 Hz, noise suppression, conversion to another rate.
#pragma once

#include "near_speech.h"
#include "wrapper_audio_recorder.h"

#include <rnnoise.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace recorder {

using sample_span = std::span<const float>;

constexpr int32_t lowest_rate = 100;
constexpr int32_t highest_rate = 768000;

// What every processor does to a sample first: removes NaN and infinity, from which a filter would never recover, and
// anything so large that it becomes one in RNNoise's single precision.
float limited(float sample);

// Converts a stream of samples, each piece as the continuation of the previous one. Output i belongs to the time of
// input i * in_rate / out_rate.
class rate_converter {
public:
    virtual ~rate_converter() = default;
    virtual void convert(sample_span in, std::vector<float>& out) = 0; // appends
};

std::unique_ptr<rate_converter> make_rate_converter(int32_t in_rate, int32_t out_rate,
                                                    wrapper_audio_conversion conversion);

// Keeps as many of the last values.
void drop_oldest(std::vector<float>& values, std::size_t most);

// RNNoise on a stream at 48000 Hz.
class noise_suppressor {
public:
    explicit noise_suppressor(float strength);

    // Appends what is denoised, the same undenoised if that is wanted, and for each 10 ms the probability that
    // somebody near speaks.
    void process(sample_span in, std::vector<float>& out, std::vector<float>* undenoised, std::vector<float>& speech);

    static constexpr int32_t frame = 480;
    static constexpr int32_t delayed_frames = 2; // RNNoise returns a frame when it is passed the second one after it

private:
    void process_frame(std::vector<float>& out, std::vector<float>* undenoised, std::vector<float>& speech);

    struct release {
        void operator()(DenoiseState* state) const { rnnoise_destroy(state); }
    };
    std::unique_ptr<DenoiseState, release> state_;
    near_speech near_;
    const float strength_;
    float frames_[delayed_frames + 1][frame] = {}; // the last ones that came in, in rotation
    uint64_t count_ = 0;
    int32_t filled_ = 0;
};

class voice_chain {
public:
    // Throws std::bad_alloc. With `keeps_undenoised` it denoises, and also has a second output, which does not.
    explicit voice_chain(const wrapper_audio_voice_options& options, bool keeps_undenoised = false);

    static bool is_valid(const wrapper_audio_voice_options& options);

    // Append what is ready, as many samples to both outputs. `flush` resets the chain; by then the stream has had as
    // many samples as belong to it.
    void process(sample_span in, std::vector<float>& out, std::vector<float>* undenoised = nullptr);
    void flush(std::vector<float>& out, std::vector<float>* undenoised = nullptr);
    void reset();

    // Probabilities of speech since the host last cleared them.
    std::vector<float>& speech() { return speech_; }

    // The most samples, at the output rate, that are held back.
    std::size_t delay() const { return delay_; }

private:
    // Behind the noise suppressor.
    struct output {
        std::unique_ptr<rate_converter> converter; // null if it runs at 48000 Hz
        std::vector<float> at_48000;
        std::vector<float> ready;

        std::vector<float>& next_in(); // where the suppressor's next samples go, before `convert`
        void convert();
        void give(std::size_t count, std::vector<float>& out);
    };

    bool denoises() const { return options_.denoise > 0.0F || options_.speech != 0; }
    uint64_t due() const;
    void run(sample_span in);
    void give(std::vector<float>& out, std::vector<float>* undenoised);

    const wrapper_audio_voice_options options_;
    std::unique_ptr<rate_converter> in_; // null if the rates are the same
    std::unique_ptr<noise_suppressor> suppressor_;
    output out_;
    std::optional<output> undenoised_;
    std::vector<float> at_48000_;
    std::vector<float> speech_;
    uint64_t taken_ = 0;
    uint64_t given_ = 0;
    uint64_t told_ = 0; // probabilities of speech
    float last_ = 0.0F;
    std::size_t delay_ = 0;
};

} // namespace recorder
