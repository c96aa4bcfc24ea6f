// Whole reads: against the plain passes, against RNNoise alone, and what the library adds to it.
#include "memory_microphone.h"
#include "plain.h"
#include "report.h"
#include "wrapper_audio.h"

#include <benchmark/benchmark.h>
#include <rnnoise.h>

#include <cstring>
#include <memory>

namespace {

using bench::quiet;

struct freed {
    void operator()(wrapper_audio_ctx* ctx) const {
        const quiet hush;
        wrapper_audio_free(ctx);
    }
};

std::unique_ptr<wrapper_audio_ctx, freed> listening(int in_rate, int out_rate, int denoise,
                                                    const std::vector<float>& samples) {
    const quiet hush;
    bench::set_microphone(in_rate, samples);
    return std::unique_ptr<wrapper_audio_ctx, freed>(wrapper_audio_init(out_rate, denoise, nullptr));
}

std::vector<float> noisy_speech() {
    static const std::vector<float> samples = bench::speech(SPEECH);
    return samples;
}

// 200 ms, which stay in the cache: what is measured is the read and not the memory.
std::vector<float> some_speech() {
    const auto samples = noisy_speech();
    return {samples.begin() + 96000, samples.begin() + 96000 + 9600};
}

std::vector<float> digital_silence() {
    return std::vector<float>(288000);
}

void whole_read(benchmark::State& state, int in_rate, int out_rate, int denoise, bool real,
                const std::vector<float>& samples, int ms = 100) {
    const auto ctx = listening(in_rate, out_rate, denoise, samples);
    bench::set_denoiser(real);
    std::vector<std::int16_t> pcm(19200);
    float rms = 0.0F;
    float peak = 0.0F;
    for (auto _ : state) {
        benchmark::DoNotOptimize(wrapper_audio_read(ctx.get(), ms, pcm.data(), 19200, &rms, &peak));
    }
    bench::set_denoiser(true);
}

void plain_read(benchmark::State& state, int in_rate, int out_rate) {
    const auto samples = some_speech();
    const std::int32_t frames = in_rate / 10;
    std::vector<float> captured(static_cast<std::size_t>(frames));
    std::vector<float> copy(captured.size());
    std::vector<float> converted(19200);
    std::vector<std::int16_t> pcm(19200);
    float rms = 0.0F;
    float peak = 0.0F;
    std::size_t position = 0;
    for (auto _ : state) {
        if (position + captured.size() > samples.size()) position = 0;
        std::memcpy(captured.data(), samples.data() + position, captured.size() * sizeof(float));
        position += captured.size();
        benchmark::DoNotOptimize(bench::plain::read(captured.data(), in_rate, out_rate, frames, copy.data(),
                                                    converted.data(), pcm.data(), rms, peak));
    }
}

// What a host would spend without us: the samples copied out of the device, in the 16-bit range already, and ten frames.
void bare_frames(benchmark::State& state, std::vector<float> samples) {
    for (float& x : samples)
        x *= 32767.0F;
    DenoiseState* denoiser = rnnoise_create(nullptr);
    std::vector<float> block(4800);
    std::size_t position = 0;
    for (auto _ : state) {
        if (position + block.size() > samples.size()) position = 0;
        std::memcpy(block.data(), samples.data() + position, block.size() * sizeof(float));
        position += block.size();
        for (std::size_t start = 0; start < block.size(); start += 480) {
            rnnoise_process_frame(denoiser, &block[start], &block[start]);
        }
    }
    rnnoise_destroy(denoiser);
}

} // namespace

void bench::register_read() {
    struct rates {
        int in, out;
        double least;
    };
    for (const auto& [in, out, least] : {rates{48000, 16000, 3.0},
                                         {44100, 16000, 1.7},
                                         {16000, 48000, 1.7},
                                         {48000, 48000, 2.5},
                                         {48000, 8000, 2.5}}) {
        const std::string name = "read " + std::to_string(in) + " to " + std::to_string(out);
        const int in_rate = in;
        const int out_rate = out;
        benchmark::RegisterBenchmark((name + ", library").c_str(), [=](benchmark::State& state) {
            whole_read(state, in_rate, out_rate, 0, true, some_speech());
        });
        benchmark::RegisterBenchmark((name + ", plain").c_str(),
                                     [=](benchmark::State& state) { plain_read(state, in_rate, out_rate); });
        require_gain(name + ", without denoising, against plain", name + ", plain", name + ", library", least);
    }
    benchmark::RegisterBenchmark("10 ms of noise suppression, library", [](benchmark::State& state) {
        whole_read(state, 48000, 16000, 1, true, noisy_speech(), 10);
    });
    struct sounds {
        const char* name;
        std::vector<float> (*samples)();
        double share;
    };
    for (const auto& [name, samples, share] :
         {sounds{"speech", noisy_speech, 0.005}, {"digital silence", digital_silence, 0.012}}) {
        const std::string what = std::string("denoised read of ") + name;
        const auto sound = samples;
        benchmark::RegisterBenchmark((what + ", library").c_str(), [=](benchmark::State& state) {
            whole_read(state, 48000, 16000, 1, true, sound());
        });
        benchmark::RegisterBenchmark((what + ", without RNNoise").c_str(), [=](benchmark::State& state) {
            whole_read(state, 48000, 16000, 1, false, sound());
        });
        benchmark::RegisterBenchmark((what + ", RNNoise alone").c_str(),
                                     [=](benchmark::State& state) { bare_frames(state, sound()); });
        require_share(what + ", all but RNNoise, as a share of it", what + ", without RNNoise",
                      what + ", RNNoise alone", share);
        require_share(what + ", whole, against RNNoise alone", what + ", library", what + ", RNNoise alone", 1.02);
    }
}
