// The recorder layer: a read beside one of the library alone, and its voice chain beside soxr and RNNoise alone.
#include "memory_microphone.h"
#include "report.h"
#include "wrapper_audio_recorder.h"

#include <benchmark/benchmark.h>
#include <rnnoise.h>
#include <soxr.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

// All work on blocks of 100 ms, taken around and around from six seconds of speech in noise, which stand for sound of
// any rate.
class blocks {
public:
    explicit blocks(int rate) : samples_(bench::speech(SPEECH)), length_(static_cast<std::size_t>(rate / 10)) {}

    std::size_t length() const { return length_; }
    const float* next() {
        if (position_ + length_ > samples_.size()) position_ = 0;
        position_ += length_;
        return samples_.data() + position_ - length_;
    }

private:
    std::vector<float> samples_;
    std::size_t length_;
    std::size_t position_ = 0;
};

void check(wrapper_audio_status status) {
    if (status != WRAPPER_AUDIO_OK) throw std::runtime_error(wrapper_audio_status_text(status));
}

// The recorder's thread works too, so that the time of the whole process counts.
void layer_read(benchmark::State& state, float denoise) {
    bench::set_microphone(48000, bench::speech(SPEECH));
    wrapper_audio_recorder_options options{};
    options.denoise = denoise;
    wrapper_audio_recorder* made = nullptr;
    check(wrapper_audio_recorder_create(&made, &options));
    const std::unique_ptr<wrapper_audio_recorder, void (*)(wrapper_audio_recorder*)> recorder(
        made, &wrapper_audio_recorder_free);
    check(wrapper_audio_recorder_open(recorder.get(), nullptr));
    std::vector<std::int16_t> pcm(1600);
    wrapper_audio_block block{};
    const auto read = [&] {
        check(wrapper_audio_recorder_read_s16(recorder.get(), pcm.data(), pcm.size(), -1, &block));
    };
    for (int i = 0; i < 100; ++i) // twice the buffer: from then on the thread waits for the host
        read();
    for (auto _ : state)
        read();
}

void voice_chain(benchmark::State& state, int in_rate, int out_rate, float denoise) {
    wrapper_audio_voice_options options{};
    options.in_rate = in_rate;
    options.out_rate = out_rate;
    options.denoise = denoise;
    wrapper_audio_processor* made = nullptr;
    check(wrapper_audio_voice_create(&made, &options));
    const std::unique_ptr<wrapper_audio_processor, void (*)(wrapper_audio_processor*)> chain(
        made, &wrapper_audio_processor_free);
    blocks in(in_rate);
    std::vector<float> out(19200);
    for (auto _ : state) {
        std::size_t count = 0;
        check(wrapper_audio_processor_process(chain.get(), in.next(), in.length(), out.data(), out.size(), &count));
        benchmark::DoNotOptimize(count);
    }
}

// What a host would spend without the layer: whole blocks through soxr of the same quality, and through RNNoise as they
// come out, in the 16-bit range already. No delay is taken out.
class bare_chain {
public:
    bare_chain(int in_rate, int out_rate, bool denoise)
        : middle_rate_(denoise ? 48000 : out_rate), in_(converter(in_rate, middle_rate_)),
          out_(converter(middle_rate_, out_rate)), denoiser_(denoise ? rnnoise_create(nullptr) : nullptr) {}

    std::size_t process(const float* samples, std::size_t count, float* result, std::size_t room) {
        if (denoiser_ == nullptr) return convert(in_.get(), samples, count, result, room);
        waiting_ += convert(in_.get(), samples, count, middle_ + waiting_, std::size(middle_) - waiting_);
        std::size_t done = 0;
        for (; done + 480 <= waiting_; done += 480)
            rnnoise_process_frame(denoiser_.get(), middle_ + done, middle_ + done);
        const std::size_t given = convert(out_.get(), middle_, done, result, room);
        waiting_ -= done;
        std::memmove(middle_, middle_ + done, waiting_ * sizeof(float));
        return given;
    }

private:
    struct release {
        void operator()(soxr_t state) const { soxr_delete(state); }
        void operator()(DenoiseState* state) const { rnnoise_destroy(state); }
    };
    using converter_state = std::unique_ptr<soxr, release>;

    static converter_state converter(int from, int to) {
        if (from == to) return nullptr;
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        return converter_state(soxr_create(from, to, 1, nullptr, nullptr, &quality, nullptr));
    }

    static std::size_t convert(soxr_t state, const float* samples, std::size_t count, float* result, std::size_t room) {
        if (state == nullptr) {
            std::memcpy(result, samples, count * sizeof(float));
            return count;
        }
        std::size_t taken = 0;
        std::size_t given = 0;
        soxr_process(state, samples, count, &taken, result, room, &given);
        return given;
    }

    int middle_rate_;
    converter_state in_;
    converter_state out_;
    std::unique_ptr<DenoiseState, release> denoiser_;
    float middle_[19200] = {};
    std::size_t waiting_ = 0;
};

void bare_voice(benchmark::State& state, int in_rate, int out_rate, bool denoise) {
    bare_chain chain(in_rate, out_rate, denoise);
    blocks in(in_rate);
    std::vector<float> scaled(in.length());
    std::vector<float> out(19200);
    for (auto _ : state) {
        const float* const samples = in.next();
        for (std::size_t i = 0; i < scaled.size(); ++i)
            scaled[i] = samples[i] * 32767.0F;
        benchmark::DoNotOptimize(chain.process(scaled.data(), scaled.size(), out.data(), out.size()));
    }
}

} // namespace

void bench::register_recorder() {
    // The reads of the library alone are in read_bench.cpp.
    const std::string plain = "recorder's read 48000 to 16000";
    const std::string denoised = "recorder's denoised read of speech";
    benchmark::RegisterBenchmark(plain.c_str(), [](benchmark::State& state) {
        layer_read(state, 0.0F);
    })->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark(denoised.c_str(), [](benchmark::State& state) {
        layer_read(state, 1.0F);
    })->MeasureProcessCPUTime();
    show_gain(plain + ", against the library's", plain, "read 48000 to 16000, library");
    show_gain(denoised + ", against the library's", denoised, "denoised read of speech, library");

    struct conversion {
        int in, out;
        bool denoise;
    };
    for (const auto& [in, out, denoise] : {conversion{48000, 16000, false},
                                           {44100, 16000, false},
                                           {48000, 48000, true},
                                           {48000, 16000, true},
                                           {44100, 16000, true}}) {
        const std::string name =
            "voice " + std::to_string(in) + " to " + std::to_string(out) + (denoise ? ", denoised" : "");
        const int in_rate = in;
        const int out_rate = out;
        const bool suppress = denoise;
        benchmark::RegisterBenchmark((name + ", layer").c_str(), [=](benchmark::State& state) {
            voice_chain(state, in_rate, out_rate, suppress ? 1.0F : 0.0F);
        });
        benchmark::RegisterBenchmark((name + ", alone").c_str(),
                                     [=](benchmark::State& state) { bare_voice(state, in_rate, out_rate, suppress); });
        if (denoise) {
            require_share(name + ", against soxr and RNNoise alone", name + ", layer", name + ", alone", 1.1);
        } else {
            show_gain(name + ", against soxr alone", name + ", layer", name + ", alone");
        }
    }
}
