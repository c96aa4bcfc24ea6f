#include "plain.h"

#include "numeric/in_place.h"
#include "numeric/pcm16.h"
#include "numeric/rate_conversion.h"

#include <cstring>

namespace bench::plain {

void add_levels(numeric::level_sums& sums, const float* samples, std::int32_t count) {
    numeric::plain::add_levels(sums, samples, count);
}

std::int32_t count_beyond(const float* samples, std::int32_t count, float threshold) {
    return numeric::plain::count_beyond(samples, count, threshold);
}

void to_pcm16(const float* in, std::int32_t count, std::int16_t* out) {
    numeric::plain::to_pcm16(in, count, out);
}

void subtract_previous(float* samples, std::int32_t count, float coef) {
    numeric::plain::subtract_previous(samples, count, coef);
}

void interpolate_linear(const float* in, std::int32_t in_count, double step, float* out, std::int32_t count) {
    numeric::plain::interpolate_linear(in, in_count, step, 0, out, count);
}

void gain_control(float* samples, std::int32_t count, float target, float keep, float& gain) {
    double sum = 0.0;
    for (std::int32_t i = 0; i < count; ++i)
        sum += static_cast<double>(samples[i] * samples[i]);
    const float rms = numeric::root_mean_square(sum, count);
    gain = gain * keep + (1.0F - keep) * (target / rms);
    for (std::int32_t i = 0; i < count; ++i)
        samples[i] *= gain;
}

std::int32_t read(const float* captured, std::int32_t in_rate, std::int32_t out_rate, std::int32_t frames, float* copy,
                  float* converted, std::int16_t* pcm, float& rms, float& peak) {
    std::memcpy(copy, captured, static_cast<std::size_t>(frames) * sizeof(float));
    const std::int32_t count = numeric::converted_count(in_rate, out_rate, frames, frames * 8);
    if (in_rate == out_rate) {
        std::memcpy(converted, copy, static_cast<std::size_t>(count) * sizeof(float));
    } else if (numeric::is_whole_decimation(in_rate, out_rate)) {
        numeric::plain::group_means(copy, in_rate / out_rate, converted, count);
    } else {
        const double step = static_cast<double>(in_rate) / static_cast<double>(out_rate);
        numeric::plain::interpolate_linear(copy, frames, step, 0, converted, count);
    }
    numeric::level_sums sums;
    numeric::plain::add_levels(sums, converted, count);
    rms = numeric::limit_to_full_scale(numeric::root_mean_square(sums.squares, count));
    peak = numeric::limit_to_full_scale(sums.peak);
    numeric::plain::to_pcm16(converted, count, pcm);
    return count;
}

double addition_chain(std::int32_t count) {
    double sum = 0.0;
    double addend = 1e-3;
    for (std::int32_t i = 0; i < count; ++i) {
        asm volatile("" : "+x"(addend)); // or the compiler could count the additions
        sum += addend;
    }
    return sum;
}

double biquad_chain(std::int32_t count) {
    double state = 1e-3;
    double b = 1e-3;
    double a = 0.9;
    double c = 1e-4;
    double d = 1e-5;
    for (std::int32_t i = 0; i < count; ++i) {
        asm volatile("" : "+x"(a), "+x"(b), "+x"(c), "+x"(d));
        const double y = b + state;
        state = (c - a * y) + d;
    }
    return state;
}

} // namespace bench::plain
