/**
 * The library's signal functions in a row, on a stream of any length in blocks of any size.
 */
#ifndef EFFECTS_H
#define EFFECTS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct high_pass {
    float corner_hz = 0;
    float q = 0.707F;
};

struct gain_control {
    float target_db = 0;
    float release_ms = 200;
};

struct effect_options {
    std::optional<high_pass> highpass;
    std::optional<float> depop;
    std::optional<gain_control> agc;

    bool any() const { return highpass || depop || agc; }
};

/** De-pop, high-pass, gain control, in this order. One at a time: the library's filters are one per process. */
class effect_chain {
public:
    effect_chain(const effect_options& wanted, int rate);

    /** Takes samples in and gives those out that are ready, at most 10 ms fewer. Valid until the next call. */
    std::span<float> process(std::span<const float> samples);

    /** What is still inside: less than 10 ms. */
    std::span<float> finish();

private:
    void depop(std::span<float> samples);
    void control_gain(std::span<float> samples);

    const effect_options wanted_;
    const std::size_t gain_block_;
    float last_sample_ = 0;
    std::vector<float> waiting_;
    std::vector<float> ready_;
    std::vector<float> scratch_;
};

/** 16-bit samples as floats of full scale 1.0, and back: rounded to the nearest, and cut at full scale. */
void to_floats(std::span<const std::int16_t> samples, std::vector<float>& floats);
void to_16_bits(std::span<const float> floats, std::vector<std::int16_t>& samples);

/** "HZ[:Q]" and "DB[:RELEASE_MS]". Throw std::invalid_argument with a sentence about what is wrong. */
high_pass parse_high_pass(const std::string& text);
gain_control parse_gain_control(const std::string& text);

#endif
