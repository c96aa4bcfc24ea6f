// Every signal function and every fast loop on any numbers, held bit for bit to what it means. NaNs need only be NaNs:
// which of two operands gives a NaN its payload is the compiler's choice, also in the plain loops.
#include "script.h"

#include "bits.h"
#include "dsp_reference.h"

// What no export reaches, the state of the process and the metrics, is reached by including the source.
#include "../src/dsp_extensions.cpp"

#include "numeric/pcm16.h"

#include <xmmintrin.h>

#include <bit>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int most_calls = 60;
constexpr std::int32_t longest_output = 4096;

void require_same(const char* what, float actual, float expected) {
    require(same_bits(actual, expected), what, std::to_string(actual) + " instead of " + std::to_string(expected));
}

// A block in memory of exactly its length, behind up to three samples that shift its alignment.
class block {
public:
    block(const std::vector<float>& samples, unsigned shift)
        : samples_(samples), shift_(shift), memory_(new float[samples.size() + shift]) {
        std::fill_n(memory_.get(), shift, 0.5F);
        std::copy(samples.begin(), samples.end(), data());
    }

    float* data() { return memory_.get() + shift_; }
    std::int32_t count() const { return static_cast<std::int32_t>(samples_.size()); }
    const std::vector<float>& before() const { return samples_; }

    void require_holds(const char* what, const std::vector<float>& expected) {
        for (unsigned i = 0; i < shift_; ++i)
            require(memory_[i] == 0.5F, "nothing is written before a block", what);
        for (std::size_t i = 0; i < samples_.size(); ++i)
            require(same_bits(data()[i], expected[i]), what,
                    "sample " + std::to_string(i) + " of " + std::to_string(samples_.size()));
    }

private:
    const std::vector<float> samples_;
    const unsigned shift_;
    const std::unique_ptr<float[]> memory_;
};

// The metrics written down plainly.
struct metrics {
    std::int32_t clipped = 0;
    std::int32_t total = 0;
    float signal = 0.0F;
    float noise = 0.001F;
    bool frozen = false;

    void add(const std::vector<float>& samples, std::int32_t count) {
        if (count == 0) return;
        double sum = 0.0;
        std::uint32_t beyond = 0;
        for (std::int32_t i = 0; i < count; ++i) {
            const float x = samples[static_cast<std::size_t>(i)];
            if (std::fabs(x) > 0.95F) ++beyond;
            const float square = x * x;
            sum += static_cast<double>(square);
        }
        clipped = static_cast<std::int32_t>(static_cast<std::uint32_t>(clipped) + beyond);
        total = static_cast<std::int32_t>(static_cast<std::uint32_t>(total) + static_cast<std::uint32_t>(count));
        const auto mean = static_cast<float>(sum / static_cast<double>(count));
        const float old_signal = 0.9F * signal;
        signal = old_signal + 0.1F * mean;
        if (frozen || !(mean < 0.001F)) return;
        const float old_noise = 0.95F * noise;
        noise = old_noise + 0.05F * mean;
    }

    float snr() const {
        if (noise < 1e-10F) return 60.0F;
        const float decibels = 10.0F * std::log10(signal / noise);
        return decibels < -10.0F ? -10.0F : decibels > 60.0F ? 60.0F : decibels;
    }

    float clipping_ratio() const { return total == 0 ? 0.0F : static_cast<float>(clipped) / static_cast<float>(total); }
};

class session {
public:
    explicit session(script& bytes) : script_(bytes) {
        // As when the library is loaded.
        g_hpf = {};
        g_hpf_initialized = 0;
        g_agc = {};
        g_agc_initialized = 0;
        g_clipping_count = 0;
        g_total_samples = 0;
        g_signal_power = 0.0F;
        g_noise_power = 0.001F;
        g_noise_profile_frozen = 0;
    }

    void run() {
        constexpr unsigned control_bits = 0xFFC0; // of MXCSR: what is masked, how it rounds, what becomes of denormals
        const unsigned control = _mm_getcsr() & control_bits;
        for (int calls = 0; calls < most_calls && !script_.at_end(); ++calls)
            step();
        require((_mm_getcsr() & control_bits) == control, "the floating-point control stays as it is");
    }

private:
    std::vector<float> read_samples();
    block read_block() {
        const unsigned shift = script_.below(4);
        return block(read_samples(), shift);
    }

    // The block's own count, or one that is no count at all.
    std::int32_t read_count(const block& of) {
        return script_.below(8) == 7 ? -script_.number<std::int8_t>() - 128 : of.count();
    }

    void step();
    void resample();
    void design_high_pass();
    void filter();
    void depop();
    void set_gain_control();
    void control_gain();
    void update_metrics();
    void freeze();
    void measure();
    void average();
    void interpolate();
    void multiply();

    script& script_;
    std::optional<reference::high_pass> high_pass_;
    std::optional<reference::gain_control> gain_;
    metrics metrics_;
};

// From the script as they are, or many from a few bytes.
std::vector<float> session::read_samples() {
    const unsigned kind = script_.below(4);
    std::vector<float> samples(kind == 0               ? script_.below(40)
                               : script_.below(8) == 7 ? 16U * script_.below(256)
                                                       : script_.below(256));
    constexpr float strange[] = {0.0F, -0.0F, 1.0F, -1.0F, 1e-45F, -1e-40F, 3e38F, 65536.0F, 0.95F, 1e20F};
    auto state = script_.number<std::uint32_t>();
    for (float& sample : samples) {
        state = state * 1664525U + 1013904223U;
        switch (kind) {
        case 0:
            sample = script_.number<float>();
            break;
        case 1:
            sample = static_cast<float>(static_cast<std::int32_t>(state)) * (1.1F / 2147483648.0F);
            break;
        case 2:
            sample = std::bit_cast<float>(state);
            break;
        default:
            sample = strange[(state >> 16U) % std::size(strange)];
        }
    }
    return samples;
}

void session::resample() {
    constexpr std::int32_t usual_rates[] = {48000, 16000, 44100, 8000, 1, 0, -16000, 96000, 24000};
    constexpr std::int32_t usual_rooms[] = {longest_output, 160, 1, 0, -1, 441};
    const std::int32_t in_rate = script_.usual(usual_rates);
    const std::int32_t out_rate = script_.usual(usual_rates);
    block in = read_block();
    const std::int32_t count = script_.below(8) == 7 ? -std::abs(script_.number<std::int16_t>()) : in.count();
    const std::int32_t room = std::min(script_.usual(usual_rooms), longest_output);
    const std::int32_t expected = reference::resampled_count(in_rate, out_rate, count, room);
    const std::unique_ptr<float[]> out(new float[static_cast<std::size_t>(std::max(expected, 0))]);
    wrapper_audio_resampler* resampler = wrapper_audio_resampler_init(in_rate, out_rate, script_.number<std::int8_t>());
    const std::int32_t got = wrapper_audio_resample(resampler, in.data(), count, out.get(), room);
    require(got == expected, "the count of the resampler",
            std::to_string(got) + " instead of " + std::to_string(expected));
    if (count == in.count() && expected > 0) {
        const std::vector<float> wanted = reference::resampled(in_rate, out_rate, in.before(), room);
        for (std::size_t i = 0; i < wanted.size(); ++i)
            require_same("the resampler", out[i], wanted[i]);
    }
    in.require_holds("the resampler leaves its input as it is", in.before());
    require(wrapper_audio_resample(nullptr, in.data(), count, out.get(), room) == 0, "no resampler gives nothing");
    require(wrapper_audio_resample(resampler, nullptr, count, out.get(), room) == 0, "no input gives nothing");
    require(wrapper_audio_resample(resampler, in.data(), count, nullptr, room) == 0, "no output takes nothing");
    wrapper_audio_resampler_free(resampler);
    wrapper_audio_resampler_free(nullptr);
}

// ---- Filters ----

void session::design_high_pass() {
    constexpr float usual_corners[] = {100.0F, 0.0F, 8000.0F, 16000.0F, -100.0F};
    constexpr float usual_qs[] = {0.707F, 0.0F, 10.0F, -1.0F};
    const float corner = script_.usual(usual_corners);
    const float q = script_.usual(usual_qs);
    wrapper_audio_hpf_init(corner, q);
    high_pass_.emplace(corner, q);
}

void session::filter() {
    block samples = read_block();
    const std::int32_t count = read_count(samples);
    wrapper_audio_hpf_process(this, samples.data(), count);
    wrapper_audio_hpf_process(this, nullptr, count);
    samples.require_holds("the high-pass",
                          high_pass_ && count > 0 ? (*high_pass_)(samples.before()) : samples.before());
    if (!high_pass_) return;
    require(same_bits(g_hpf.z1, high_pass_->z1) && same_bits(g_hpf.z2, high_pass_->z2), "the state of the high-pass");
}

void session::depop() {
    constexpr float usual_shares[] = {0.95F, 0.0F, 1.0F, -1.0F};
    const float share = script_.usual(usual_shares);
    block samples = read_block();
    const std::int32_t count = read_count(samples);
    wrapper_audio_depop_process(this, samples.data(), count, share);
    wrapper_audio_depop_process(this, nullptr, count, share);
    samples.require_holds("the de-pop", count > 1 ? reference::depopped(samples.before(), share) : samples.before());
}

// ---- Gain control and metrics ----

void session::set_gain_control() {
    constexpr float usual_targets[] = {-20.0F, 0.0F, -60.0F, 40.0F};
    constexpr float usual_releases[] = {100.0F, 0.0F, -10.0F, 1e-3F};
    const float target = script_.usual(usual_targets);
    const float release = script_.usual(usual_releases);
    wrapper_audio_agc_init(target, release);
    gain_.emplace(target, release);
}

void session::control_gain() {
    block samples = read_block();
    const std::int32_t count = read_count(samples);
    wrapper_audio_agc_process(this, samples.data(), count);
    wrapper_audio_agc_process(this, nullptr, count);
    samples.require_holds("the gain control", gain_ && count > 0 ? (*gain_)(samples.before()) : samples.before());
    if (gain_) require_same("the gain", g_agc.gain, gain_->gain);
}

void session::update_metrics() {
    block samples = read_block();
    const std::int32_t count = read_count(samples);
    dsp_update_metrics(samples.data(), count);
    dsp_update_metrics(nullptr, count);
    metrics_.add(samples.before(), count);
    samples.require_holds("the metrics leave the samples as they are", samples.before());
    require_same("the signal-to-noise ratio", wrapper_audio_snr(), metrics_.snr());
    require_same("the clipping ratio", wrapper_audio_clipping_ratio(), metrics_.clipping_ratio());
}

void session::freeze() {
    const auto value = script_.number<std::int32_t>();
    wrapper_audio_update_noise_profile(this, value);
    metrics_.frozen = value != 0;
    if (value == 0) metrics_.clipped = metrics_.total = 0;
    std::int32_t statistics = 5;
    require(wrapper_audio_denoise_stats(this, &statistics) == 1 && statistics == 0, "the denoise statistics are 0");
    require(wrapper_audio_denoise_stats(nullptr, nullptr) == 1, "the denoise statistics need no place");
}

// ---- Fast loops ----

void session::measure() {
    block samples = read_block();
    const std::int32_t count = samples.count();
    numeric::level_sums actual{std::fabs(script_.number<float>()), 0.0};
    if (std::isnan(actual.peak)) actual.peak = 0.0F; // sums begin at 0 and never take a NaN as their peak
    numeric::level_sums expected = actual;
    numeric::level_sums together = actual;
    const std::unique_ptr<std::int16_t[]> pcm(new std::int16_t[samples.before().size()]);
    numeric::add_levels(actual, samples.data(), count);
    numeric::plain::add_levels(expected, samples.data(), count);
    numeric::measure_to_pcm16(together, samples.data(), count, pcm.get());
    for (const numeric::level_sums& each : {actual, together}) {
        require_same("the peak of a block", each.peak, expected.peak);
        require(same_bits(each.squares, expected.squares), "the sum of squares of a block");
    }
    for (std::int32_t i = 0; i < count; ++i)
        require(pcm[static_cast<std::size_t>(i)] == numeric::plain::to_pcm16(samples.data()[i]), "16-bit samples");
    samples.require_holds("measuring leaves a block as it is", samples.before());
}

void session::average() {
    block in = read_block();
    const auto ratio = static_cast<std::int32_t>(2 + script_.below(14));
    const std::int32_t count = in.count() / ratio;
    block actual(std::vector<float>(static_cast<std::size_t>(count)), 0);
    std::vector<float> expected(static_cast<std::size_t>(count));
    numeric::group_means(in.data(), ratio, actual.data(), count);
    numeric::plain::group_means(in.data(), ratio, expected.data(), count);
    actual.require_holds("means of groups", expected);
}

// Any piece of any interpolation whose positions stay inside the block.
void session::interpolate() {
    block in = read_block();
    constexpr std::int32_t usual_rates[] = {48000, 16000, 44100, 8000, 11025, 1};
    const std::int32_t in_rate = std::max(1, script_.usual(usual_rates));
    const std::int32_t out_rate = std::max(1, script_.usual(usual_rates));
    const std::int32_t all =
        in.count() == 0 ? 0 : numeric::converted_count(in_rate, out_rate, in.count(), longest_output);
    const std::int32_t first = all == 0 ? 0 : script_.number<std::uint16_t>() % all;
    const std::int32_t count = all - first;
    const double distance = static_cast<double>(in_rate) / static_cast<double>(out_rate);
    block actual(std::vector<float>(static_cast<std::size_t>(count)), 0);
    std::vector<float> expected(static_cast<std::size_t>(count));
    numeric::interpolate_linear(in.data(), in.count(), distance, first, actual.data(), count);
    numeric::plain::interpolate_linear(in.data(), in.count(), distance, first, expected.data(), count);
    actual.require_holds("linear interpolation", expected);
}

void session::multiply() {
    block samples = read_block();
    const auto gain = script_.number<float>();
    std::vector<float> expected = samples.before();
    numeric::multiply(samples.data(), samples.count(), gain);
    numeric::plain::multiply(expected.data(), samples.count(), gain);
    samples.require_holds("a gain", expected);
}

void session::step() {
    constexpr void (session::*calls[])() = {
        &session::resample,         &session::design_high_pass, &session::filter,         &session::depop,
        &session::set_gain_control, &session::control_gain,     &session::update_metrics, &session::freeze,
        &session::measure,          &session::average,          &session::interpolate,    &session::multiply};
    (this->*calls[script_.below(std::size(calls))])();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// The library's lines would be all that one sees. Findings are written to descriptor 2, which stays as it is.
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    stderr = std::fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    script script(bytes, size);
    session(script).run();
    return 0;
}
