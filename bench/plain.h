// The plain loops, as a compiler at -O2 makes them, and the bare chains of dependent operations that bound them.
#pragma once

#include "numeric/levels.h"

#include <cstdint>

namespace bench::plain {

void add_levels(numeric::level_sums& sums, const float* samples, std::int32_t count);
std::int32_t count_beyond(const float* samples, std::int32_t count, float threshold);
void to_pcm16(const float* in, std::int32_t count, std::int16_t* out);
void subtract_previous(float* samples, std::int32_t count, float coef);
void interpolate_linear(const float* in, std::int32_t in_count, double step, float* out, std::int32_t count);
void gain_control(float* samples, std::int32_t count, float target, float keep, float& gain);

// A whole read without denoising after Pa_ReadStream: copy, convert, measure, narrow, each in a pass of its own.
std::int32_t read(const float* captured, std::int32_t in_rate, std::int32_t out_rate, std::int32_t frames, float* copy,
                  float* converted, std::int16_t* pcm, float& rms, float& peak);

// `count` additions in double precision, each waiting for the one before.
double addition_chain(std::int32_t count);
// `count` times add, multiply, subtract, add: what a sample of the high-pass waits for.
double biquad_chain(std::int32_t count);

} // namespace bench::plain
