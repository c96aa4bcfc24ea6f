// The exported functions and the loops under the reads, against the plain loops and against what bounds them.
#include "memory_microphone.h"
#include "numeric/pcm16.h"
#include "plain.h"
#include "report.h"
#include "wrapper_audio.h"

#include <benchmark/benchmark.h>

#include <emmintrin.h>

#include <cmath>
#include <memory>

namespace {

// Registers `work(samples, count)`, called over and over with a block of this many samples.
template <typename Work>
void add(const std::string& name, int count, Work work) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) mutable {
        auto samples = bench::noise(count);
        for (auto _ : state) {
            work(samples.data(), count);
            benchmark::ClobberMemory();
        }
    });
}

// The same, each call waiting for the end of the one before. What is bound by a chain of additions would otherwise share
// the processor with the next call's chain, as the calls of no host do.
template <typename Work>
void add_alone(const std::string& name, int count, Work work) {
    add(name, count, [=](float* samples, std::int32_t length) mutable {
        work(samples, length);
        _mm_lfence();
    });
}

// In blocks of 160 the overhead of the calls weighs more.
double most_at(int count, double most) {
    return count < 480 ? most * 1.2 : most;
}
double least_at(int count, double least) {
    return count < 480 ? least / 1.2 : least;
}

void register_levels(int count) {
    const std::string n = ", " + std::to_string(count);
    add_alone("addition chain" + n, count,
              [](float*, std::int32_t length) { benchmark::DoNotOptimize(bench::plain::addition_chain(length)); });
    add_alone("levels" + n + ", library", count, [](float* samples, std::int32_t length) {
        numeric::level_sums sums;
        numeric::add_levels(sums, samples, length);
        benchmark::DoNotOptimize(sums);
    });
    add_alone("levels" + n + ", plain", count, [](float* samples, std::int32_t length) {
        numeric::level_sums sums;
        bench::plain::add_levels(sums, samples, length);
        benchmark::DoNotOptimize(sums);
    });
    bench::show_gain("levels" + n + ", against plain", "levels" + n + ", plain", "levels" + n + ", library");
    bench::require_share("levels" + n + ", against the addition chain", "levels" + n + ", library",
                         "addition chain" + n, most_at(count, 1.15));
    add_alone("metrics" + n + ", library", count, [](float* samples, std::int32_t length) {
        std::int32_t clipped = 0;
        benchmark::DoNotOptimize(numeric::sum_of_squares(samples, length, 0.95F, clipped));
        benchmark::DoNotOptimize(clipped);
    });
    bench::require_share("metrics" + n + ", against the addition chain", "metrics" + n + ", library",
                         "addition chain" + n, most_at(count, 1.15));
    add_alone("gain control" + n + ", library", count,
              [](float* samples, std::int32_t length) { wrapper_audio_agc_process(nullptr, samples, length); });
    add_alone("gain control" + n + ", plain", count, [gain = 1.0F](float* samples, std::int32_t length) mutable {
        bench::plain::gain_control(samples, length, 0.1F, 0.9F, gain);
    });
    bench::show_gain("gain control" + n + ", against plain", "gain control" + n + ", plain",
                     "gain control" + n + ", library");
    bench::require_share("gain control" + n + ", against the addition chain", "gain control" + n + ", library",
                         "addition chain" + n, most_at(count, 1.35));
}

void register_in_place(int count) {
    const std::string n = ", " + std::to_string(count);
    add("de-pop" + n + ", library", count,
        [](float* samples, std::int32_t length) { wrapper_audio_depop_process(nullptr, samples, length, 0.0F); });
    add("de-pop" + n + ", plain", count,
        [](float* samples, std::int32_t length) { bench::plain::subtract_previous(samples, length, 0.0F); });
    bench::require_gain("de-pop" + n + ", against plain", "de-pop" + n + ", plain", "de-pop" + n + ", library",
                        least_at(count, 3.0));
    const auto pcm = std::make_shared<std::vector<std::int16_t>>(static_cast<std::size_t>(count));
    add("levels and 16 bits" + n + ", library", count, [pcm](float* samples, std::int32_t length) {
        numeric::level_sums sums;
        numeric::measure_to_pcm16(sums, samples, length, pcm->data());
        benchmark::DoNotOptimize(sums);
    });
    add("to 16 bits" + n + ", library", count, [pcm](float* samples, std::int32_t length) {
        for (std::int32_t i = 0; i < length; i += 8) {
            numeric::store(pcm->data() + i, numeric::to_pcm16(numeric::load<numeric::float4>(samples + i),
                                                              numeric::load<numeric::float4>(samples + i + 4)));
        }
    });
    add("to 16 bits" + n + ", plain", count,
        [pcm](float* samples, std::int32_t length) { bench::plain::to_pcm16(samples, length, pcm->data()); });
    bench::require_gain("to 16 bits" + n + ", against plain", "to 16 bits" + n + ", plain",
                        "to 16 bits" + n + ", library", least_at(count, 4.0));
}

void register_high_pass(int count) {
    const std::string n = ", " + std::to_string(count);
    add("biquad chain" + n, count,
        [](float*, std::int32_t length) { benchmark::DoNotOptimize(bench::plain::biquad_chain(length)); });
    const auto source = std::make_shared<std::vector<float>>(bench::noise(count));
    add("high-pass" + n + ", signal", count, [source](float* samples, std::int32_t length) {
        std::copy(source->begin(), source->end(), samples);
        wrapper_audio_hpf_process(nullptr, samples, length);
    });
    if (count >= 1600) {
        bench::require_share("high-pass" + n + ", against its chain", "high-pass" + n + ", signal", "biquad chain" + n,
                             1.08);
    }
    // Long after a signal has ended only denormal numbers go around in the filter.
    benchmark::RegisterBenchmark(("high-pass" + n + ", zeros after a signal").c_str(), [=](benchmark::State& state) {
        {
            const bench::quiet hush;
            wrapper_audio_hpf_init(100.0F, 0.707F);
        }
        auto samples = bench::noise(count);
        wrapper_audio_hpf_process(nullptr, samples.data(), count);
        std::vector<float> zeros(static_cast<std::size_t>(count));
        for (int i = 0; i < 64000; i += count) {
            wrapper_audio_hpf_process(nullptr, zeros.data(), count);
            std::fill(zeros.begin(), zeros.end(), 0.0F);
        }
        for (auto _ : state) {
            std::fill(zeros.begin(), zeros.end(), 0.0F);
            wrapper_audio_hpf_process(nullptr, zeros.data(), count);
        }
        const bench::quiet hush;
        wrapper_audio_hpf_init(100.0F, 0.707F);
    });
    if (count >= 480) {
        bench::require_share("high-pass" + n + ", zeros after a signal, against signal",
                             "high-pass" + n + ", zeros after a signal", "high-pass" + n + ", signal", 3.0);
    }
}

void register_resampler(int count, int in_rate, int out_rate, double least) {
    const std::string name =
        "resampler " + std::to_string(in_rate) + " to " + std::to_string(out_rate) + ", " + std::to_string(count);
    const auto out = std::make_shared<std::vector<float>>(static_cast<std::size_t>(count) * 3 + 1);
    const std::shared_ptr<wrapper_audio_resampler> handle = [=] {
        const bench::quiet hush;
        return std::shared_ptr<wrapper_audio_resampler>(wrapper_audio_resampler_init(in_rate, out_rate, 0),
                                                        wrapper_audio_resampler_free);
    }();
    const double step = static_cast<double>(in_rate) / static_cast<double>(out_rate);
    add(name + ", library", count, [=](float* samples, std::int32_t length) {
        wrapper_audio_resample(handle.get(), samples, length, out->data(), static_cast<std::int32_t>(out->size()));
    });
    add(name + ", plain", count, [=](float* samples, std::int32_t length) {
        const auto produced = static_cast<std::int32_t>(static_cast<double>(length) / step);
        bench::plain::interpolate_linear(samples, length, step, out->data(), produced);
    });
    bench::require_gain(name + ", against plain", name + ", plain", name + ", library", least_at(count, least));
}

} // namespace

void bench::register_functions() {
    {
        const quiet hush;
        wrapper_audio_agc_init(-20.0F, 100.0F);
        wrapper_audio_hpf_init(100.0F, 0.707F);
    }
    for (const int count : bench::sizes) {
        register_levels(count);
        register_in_place(count);
        register_high_pass(count);
        register_resampler(count, 44100, 16000, 1.25);
        register_resampler(count, 16000, 48000, 1.25);
        register_resampler(count, 48000, 44100, 1.25);
        register_resampler(count, 48000, 16000, 5.0);
        register_resampler(count, 16000, 16000, 8.0);
    }
}
