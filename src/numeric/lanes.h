// Vectors of 16 bytes and their halves. GCC and clang make SSE2 of them, NEON, or what else the processor has; each lane
// computes what a single number would, to the same bits. What they cannot say, or say slowly, is here for each processor.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#if defined(__FAST_MATH__) || (defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__ != 0)
#error "wrapper_audio's numbers are exact, NaN and infinity among them: build it without -ffast-math and its parts"
#endif

namespace numeric {

using float4 __attribute__((vector_size(16))) = float;
using float2 __attribute__((vector_size(8))) = float;
using double2 __attribute__((vector_size(16))) = double;
using int4 __attribute__((vector_size(16))) = int32_t;
using short8 __attribute__((vector_size(16))) = int16_t;

template <typename Lanes>
Lanes load(const float* from) {
    Lanes lanes;
    std::memcpy(&lanes, from, sizeof lanes);
    return lanes;
}

template <typename Lanes, typename Sample>
void store(Sample* to, Lanes lanes) {
    std::memcpy(to, &lanes, sizeof lanes);
}

// The first two floats in double precision.
inline double2 to_doubles(float4 x) {
#if defined(__SSE2__)
    return _mm_cvtps_pd(x);
#else
    return double2{x[0], x[1]};
#endif
}

inline double2 load_doubles(const float* from) {
#if defined(__SSE2__)
    return _mm_cvtps_pd(std::bit_cast<__m128>(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(from))));
#else
    return __builtin_convertvector(load<float2>(from), double2);
#endif
}

inline void store_floats(float* to, double2 x) {
#if defined(__SSE2__)
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), std::bit_cast<__m128i>(_mm_cvtpd_ps(x)));
#else
    store(to, __builtin_convertvector(x, float2));
#endif
}

// Numbers that fit into 32 bits, rounded toward zero.
struct whole_numbers {
    int32_t first;
    int32_t second;
    double2 both;
};

inline whole_numbers truncate(double2 x) {
#if defined(__SSE2__)
    const __m128i whole = _mm_cvttpd_epi32(x);
    const auto both = static_cast<uint64_t>(_mm_cvtsi128_si64(whole));
    return {static_cast<int32_t>(static_cast<uint32_t>(both)), static_cast<int32_t>(both >> 32U),
            _mm_cvtepi32_pd(whole)};
#else
    const auto first = static_cast<int32_t>(x[0]);
    const auto second = static_cast<int32_t>(x[1]);
    return {first, second, double2{static_cast<double>(first), static_cast<double>(second)}};
#endif
}

// Rounded toward zero, and limited to -32767 and 32767. What a NaN or a magnitude of 2^31 and above becomes is the
// processor's choice.
inline short8 to_shorts(float4 x, float4 y) {
#if defined(__SSE2__)
    const __m128i shorts = _mm_packs_epi32(_mm_cvttps_epi32(x), _mm_cvttps_epi32(y));
    return std::bit_cast<short8>(_mm_max_epi16(shorts, _mm_set1_epi16(-32767)));
#elif defined(__ARM_NEON)
    const int16x8_t shorts = vqmovn_high_s32(vqmovn_s32(vcvtq_s32_f32(x)), vcvtq_s32_f32(y));
    return std::bit_cast<short8>(vmaxq_s16(shorts, vdupq_n_s16(-32767)));
#else
    short8 shorts{};
    for (int lane = 0; lane < 4; ++lane) {
        shorts[lane] = static_cast<int16_t>(std::max(-32767.0F, std::min(x[lane], 32767.0F)));
        shorts[lane + 4] = static_cast<int16_t>(std::max(-32767.0F, std::min(y[lane], 32767.0F)));
    }
    return shorts;
#endif
}

} // namespace numeric
