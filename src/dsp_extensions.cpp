// The signal functions that hosts call on their own buffers: resampler, high-pass, de-pop, gain control, metrics.
// One filter, one gain control and one set of metrics serve the whole process. Nothing here locks.
#include "wrapper_audio.h"

#include "numeric/biquad.h"
#include "numeric/in_place.h"
#include "numeric/levels.h"
#include "numeric/rate_conversion.h"

#include <math.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>

struct wrapper_audio_resampler {
    int32_t in_rate;
    int32_t out_rate;
    int32_t extra;
    int32_t reserved;
};

// ---- Linear resampler ----

wrapper_audio_resampler* wrapper_audio_resampler_init(int32_t in_rate, int32_t out_rate, int32_t extra) noexcept {
    auto* resampler = static_cast<wrapper_audio_resampler*>(std::calloc(1, sizeof(wrapper_audio_resampler)));
    if (resampler == nullptr) return nullptr;
    *resampler = {.in_rate = in_rate, .out_rate = out_rate, .extra = extra, .reserved = 0};
    std::fputs("[dsp] soxr недоступен, используется linear interpolation\n", stderr);
    return resampler;
}

int32_t wrapper_audio_resample(const wrapper_audio_resampler* resampler, const float* in, int32_t in_count, float* out,
                               int32_t max_out) noexcept {
    if (in == nullptr || out == nullptr || resampler == nullptr) return 0;
    const double ratio = static_cast<double>(resampler->in_rate) / static_cast<double>(resampler->out_rate);
    const int32_t count = numeric::resampled_count(in_count, ratio, max_out);
    if (count <= 0) return count;
    // A negative count of inputs over a negative ratio promises outputs, but there is nothing to make them from.
    if (in_count < 0) return in_count;
    numeric::resample(in, in_count, ratio, out, count);
    return count;
}

void wrapper_audio_resampler_free(wrapper_audio_resampler* resampler) noexcept {
    std::free(resampler);
}

// ---- High-pass and de-pop filters ----

namespace {

// Whatever rate the host's buffers have: there the corner lands at cutoff * rate / 16000.
constexpr double hpf_design_rate = 16000.0;

numeric::biquad g_hpf;
int32_t g_hpf_initialized;

} // namespace

void wrapper_audio_hpf_init(float cutoff_hz, float q) noexcept {
    g_hpf = numeric::high_pass(static_cast<double>(cutoff_hz), static_cast<double>(q), hpf_design_rate);
    g_hpf_initialized = 1;
    std::fprintf(stderr, "[dsp] HPF инициализирован: cutoff=%.0f Hz, Q=%.3f\n", static_cast<double>(cutoff_hz),
                 static_cast<double>(q));
}

void wrapper_audio_hpf_process(const void* /*handle*/, float* samples, int32_t count) noexcept {
    if (g_hpf_initialized == 0 || samples == nullptr || count < 1) return;
    numeric::filter(g_hpf, samples, count);
}

void wrapper_audio_depop_process(const void* /*handle*/, float* samples, int32_t count, float coef) noexcept {
    if (samples == nullptr || count <= 1) return;
    numeric::subtract_previous(samples, count, coef);
}

// ---- Automatic gain control ----

namespace {

struct agc {
    float target_lin;
    float release_coef;
    float gain;
};

agc g_agc;
int32_t g_agc_initialized;

// The block length that the smoothing assumes, whatever the host's blocks are.
constexpr float agc_block_ms = 10.0F;
constexpr float agc_silence = 1e-6F;
constexpr float agc_max_gain = 10.0F;
constexpr float agc_min_gain = 0.1F;

// The upper bound is tested first; a NaN passes both.
float limit_gain(float gain) {
    if (gain > agc_max_gain) return agc_max_gain;
    return gain < agc_min_gain ? agc_min_gain : gain;
}

} // namespace

void wrapper_audio_agc_init(float target_db, float release_ms) noexcept {
    g_agc.target_lin = powf(10.0F, target_db / 20.0F);
    g_agc.release_coef = expf(-agc_block_ms / release_ms);
    g_agc.gain = 1.0F;
    g_agc_initialized = 1;
    std::fprintf(stderr, "[dsp] AGC инициализирован: target=%.1f dB (%.4f lin), release=%.0f ms\n",
                 static_cast<double>(target_db), static_cast<double>(g_agc.target_lin),
                 static_cast<double>(release_ms));
}

void wrapper_audio_agc_process(const void* /*handle*/, float* samples, int32_t count) noexcept {
    if (g_agc_initialized == 0 || samples == nullptr || count <= 0) return;
    const float rms = numeric::root_mean_square(numeric::sum_of_squares(samples, count), count);
    // Silence passes as it is, not even multiplied by the current gain.
    if (rms < agc_silence) return;
    const float desired = limit_gain(g_agc.target_lin / rms);
    g_agc.gain = g_agc.gain * g_agc.release_coef + (1.0F - g_agc.release_coef) * desired;
    numeric::multiply(samples, count, g_agc.gain);
}

// ---- Signal metrics and denoise statistics ----

namespace {

int32_t g_clipping_count = 0;
int32_t g_total_samples = 0;
float g_signal_power = 0.0F;
float g_noise_power = 0.001F;
int32_t g_noise_profile_frozen = 0;

constexpr float clip_threshold = 0.95F;
constexpr float quiet_threshold = 0.001F;

// The counters wrap around in two's complement.
int32_t add_wrapping(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Folds a block into the metrics. Nothing calls it yet: until something feeds it, the getters keep their first answers.
// A negative count is taken back from the total, and counts as a silent block.
[[maybe_unused]] void dsp_update_metrics(const float* samples, int32_t count) {
    if (samples == nullptr || count == 0) return;
    int32_t clipped = 0;
    const double squares = numeric::sum_of_squares(samples, count, clip_threshold, clipped);
    g_clipping_count = add_wrapping(g_clipping_count, clipped);
    g_total_samples = add_wrapping(g_total_samples, count);
    const auto mean_square = static_cast<float>(squares / static_cast<double>(count));
    g_signal_power = 0.9F * g_signal_power + 0.1F * mean_square;
    if (g_noise_profile_frozen != 0) return;
    if (mean_square < quiet_threshold) g_noise_power = 0.95F * g_noise_power + 0.05F * mean_square;
}

} // namespace

float wrapper_audio_snr() noexcept {
    if (g_noise_power < 1e-10F) return 60.0F;
    const float snr_db = 10.0F * log10f(g_signal_power / g_noise_power);
    if (snr_db < -10.0F) return -10.0F;
    return snr_db > 60.0F ? 60.0F : snr_db;
}

float wrapper_audio_clipping_ratio() noexcept {
    if (g_total_samples == 0) return 0.0F;
    return static_cast<float>(g_clipping_count) / static_cast<float>(g_total_samples);
}

void wrapper_audio_update_noise_profile(const void* /*handle*/, int32_t freeze) noexcept {
    g_noise_profile_frozen = freeze;
    if (freeze != 0) return;
    g_clipping_count = 0;
    g_total_samples = 0;
}

int32_t wrapper_audio_denoise_stats(const void* /*handle*/, int32_t* out) noexcept {
    if (out != nullptr) *out = 0;
    return 1;
}
