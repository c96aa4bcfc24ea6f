// Peak and RMS of a block, on linear amplitudes against full scale 1.0, and the 16-bit samples that go with them.
#pragma once

#include <emmintrin.h>
#include <stdint.h>

#include <algorithm>
#include <cmath>

namespace numeric {

// What one pass over the samples gathers. Passes over the pieces of a block add up to the same bits as one over all.
struct level_sums {
    float peak = 0.0F;
    double squares = 0.0;
};

namespace plain {

// Squares are formed in single precision and summed in double, in index order. A NaN never becomes the peak.
inline void add_levels(level_sums& sums, const float* samples, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const float x = samples[i];
        const float magnitude = std::fabs(x);
        if (magnitude > sums.peak) sums.peak = magnitude;
        sums.squares += static_cast<double>(x * x);
    }
}

// How many samples have a magnitude above the threshold. A NaN never does.
inline int32_t count_beyond(const float* samples, int32_t count, float threshold) {
    int32_t beyond = 0;
    for (int32_t i = 0; i < count; ++i) {
        beyond += std::fabs(samples[i]) > threshold ? 1 : 0;
    }
    return beyond;
}

} // namespace plain

// The sum of squares is one long chain of additions, each waiting for the one before. What else there is to do with the
// samples fits into the waiting: `meanwhile(i, x, y)` gets samples i to i + 3 and i + 4 to i + 7. Returns how many
// samples were taken, the largest multiple of 8.
template <typename Meanwhile>
int32_t add_squares(double& sum, const float* samples, int32_t count, Meanwhile meanwhile) {
    const int32_t whole = count > 0 ? count & ~7 : 0;
    double running = sum;
    for (int32_t i = 0; i < whole; i += 8) {
        const __m128 vectors[2] = {_mm_loadu_ps(samples + i), _mm_loadu_ps(samples + i + 4)};
        meanwhile(i, vectors[0], vectors[1]);
        for (const __m128 x : vectors) {
            const __m128 squares = _mm_mul_ps(x, x);
            const __m128d low = _mm_cvtps_pd(squares);
            const __m128d high = _mm_cvtps_pd(_mm_movehl_ps(squares, squares));
            running += _mm_cvtsd_f64(low);
            running += _mm_cvtsd_f64(_mm_unpackhi_pd(low, low));
            running += _mm_cvtsd_f64(high);
            running += _mm_cvtsd_f64(_mm_unpackhi_pd(high, high));
        }
    }
    sum = running;
    return whole;
}

inline __m128 magnitudes(__m128 x) {
    return _mm_and_ps(x, _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF)));
}

// `max` in this order leaves the peak alone where a sample is NaN.
inline __m128 raise_peak(__m128 peaks, __m128 x) {
    return _mm_max_ps(magnitudes(x), peaks);
}

inline float largest(__m128 x) {
    float lanes[4];
    _mm_storeu_ps(lanes, x);
    return std::max({lanes[0], lanes[1], lanes[2], lanes[3]});
}

inline void add_levels(level_sums& sums, const float* samples, int32_t count) {
    __m128 peaks = _mm_set1_ps(sums.peak);
    const int32_t done = add_squares(sums.squares, samples, count,
                                     [&](int32_t, __m128 x, __m128 y) { peaks = raise_peak(raise_peak(peaks, x), y); });
    sums.peak = largest(peaks);
    plain::add_levels(sums, samples + done, count - done);
}

// The sum of squares alone.
inline double sum_of_squares(const float* samples, int32_t count) {
    level_sums sums;
    const int32_t done = add_squares(sums.squares, samples, count, [](int32_t, __m128, __m128) {});
    plain::add_levels(sums, samples + done, count - done);
    return sums.squares;
}

// The sum of squares, and how many magnitudes lie above the threshold.
inline double sum_of_squares(const float* samples, int32_t count, float threshold, int32_t& beyond) {
    level_sums sums;
    const __m128 limit = _mm_set1_ps(threshold);
    __m128i counts = _mm_setzero_si128();
    const int32_t done = add_squares(sums.squares, samples, count, [&](int32_t, __m128 x, __m128 y) {
        // A lane that is above is -1.
        counts = _mm_sub_epi32(counts, _mm_castps_si128(_mm_cmpgt_ps(magnitudes(x), limit)));
        counts = _mm_sub_epi32(counts, _mm_castps_si128(_mm_cmpgt_ps(magnitudes(y), limit)));
    });
    int32_t lanes[4];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), counts);
    beyond = lanes[0] + lanes[1] + lanes[2] + lanes[3] + plain::count_beyond(samples + done, count - done, threshold);
    plain::add_levels(sums, samples + done, count - done);
    return sums.squares;
}

// Root of the mean of `squares` over `count` samples, which must not be 0.
inline float root_mean_square(double squares, int32_t count) {
    return static_cast<float>(std::sqrt(squares / static_cast<double>(count)));
}

// A NaN stays a NaN.
inline float limit_to_full_scale(float level) {
    return level > 1.0F ? 1.0F : level;
}

} // namespace numeric
