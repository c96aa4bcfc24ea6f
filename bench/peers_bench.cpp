// What a host would otherwise pick, from Debian, on the same blocks in the same process. None of them computes the same
// numbers; several do far more. The figures say what each costs, not what it is worth.
#include "memory_microphone.h"
#include "report.h"

#include <benchmark/benchmark.h>
#include <samplerate.h>
#include <soxr.h>
#include <speex/speex_preprocess.h>
#include <speex/speex_resampler.h>
#include <volk/volk.h>
#if __has_include(<webrtc/modules/interface/module_common_types.h>)
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>
#else // from version 1 on
#include <modules/audio_processing/include/audio_processing.h>
#define WEBRTC_CONFIG
#endif

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <functional>
#include <memory>

namespace {

// ---- Resamplers: each is made once and then fed block after block, as a stream. ----

using converter = std::function<void(const float* in, int count, float* out, int room)>;

converter with_libsamplerate(int kind, int in_rate, int out_rate) {
    int error = 0;
    const std::shared_ptr<SRC_STATE> state(src_new(kind, 1, &error), src_delete);
    return [=](const float* in, int count, float* out, int room) {
        SRC_DATA data{};
        data.data_in = in;
        data.data_out = out;
        data.input_frames = count;
        data.output_frames = room;
        data.src_ratio = static_cast<double>(out_rate) / in_rate;
        benchmark::DoNotOptimize(src_process(state.get(), &data));
    };
}

converter with_speexdsp(int quality, int in_rate, int out_rate) {
    int error = 0;
    const std::shared_ptr<SpeexResamplerState> state(speex_resampler_init(1, static_cast<spx_uint32_t>(in_rate),
                                                                          static_cast<spx_uint32_t>(out_rate), quality,
                                                                          &error),
                                                     speex_resampler_destroy);
    return [=](const float* in, int count, float* out, int room) {
        auto taken = static_cast<spx_uint32_t>(count);
        auto made = static_cast<spx_uint32_t>(room);
        benchmark::DoNotOptimize(speex_resampler_process_float(state.get(), 0, in, &taken, out, &made));
    };
}

converter with_soxr(unsigned long recipe, int in_rate, int out_rate) {
    const soxr_quality_spec_t quality = soxr_quality_spec(recipe, 0);
    const std::shared_ptr<soxr> state(soxr_create(in_rate, out_rate, 1, nullptr, nullptr, &quality, nullptr),
                                      soxr_delete);
    return [=](const float* in, int count, float* out, int room) {
        std::size_t taken = 0;
        std::size_t made = 0;
        benchmark::DoNotOptimize(soxr_process(state.get(), in, static_cast<std::size_t>(count), &taken, out,
                                              static_cast<std::size_t>(room), &made));
    };
}

converter with_libswresample(int in_rate, int out_rate) {
    AVChannelLayout mono;
    av_channel_layout_default(&mono, 1);
    SwrContext* made = nullptr;
    swr_alloc_set_opts2(&made, &mono, AV_SAMPLE_FMT_FLT, out_rate, &mono, AV_SAMPLE_FMT_FLT, in_rate, 0, nullptr);
    swr_init(made);
    const std::shared_ptr<SwrContext> state(made, [](SwrContext* context) { swr_free(&context); });
    return [=](const float* in, int count, float* out, int room) {
        const auto* source = reinterpret_cast<const std::uint8_t*>(in);
        auto* target = reinterpret_cast<std::uint8_t*>(out);
        benchmark::DoNotOptimize(swr_convert(state.get(), &target, room, &source, count));
    };
}

void register_resamplers(int count, int in_rate, int out_rate) {
    const std::string name =
        "resampler " + std::to_string(in_rate) + " to " + std::to_string(out_rate) + ", " + std::to_string(count);
    const std::pair<const char*, std::function<converter()>> peers[] = {
        {"libsamplerate hold", [=] { return with_libsamplerate(SRC_ZERO_ORDER_HOLD, in_rate, out_rate); }},
        {"libsamplerate linear", [=] { return with_libsamplerate(SRC_LINEAR, in_rate, out_rate); }},
        {"libsamplerate sinc fastest", [=] { return with_libsamplerate(SRC_SINC_FASTEST, in_rate, out_rate); }},
        {"speexdsp q0", [=] { return with_speexdsp(0, in_rate, out_rate); }},
        {"speexdsp q3", [=] { return with_speexdsp(3, in_rate, out_rate); }},
        {"soxr quick", [=] { return with_soxr(SOXR_QQ, in_rate, out_rate); }},
        {"soxr low", [=] { return with_soxr(SOXR_LQ, in_rate, out_rate); }},
        {"libswresample", [=] { return with_libswresample(in_rate, out_rate); }},
    };
    for (const auto& [peer, make] : peers) {
        const std::string row = name + ", " + peer;
        benchmark::RegisterBenchmark(row.c_str(), [=, make = make](benchmark::State& state) {
            const converter convert = make();
            const auto in = bench::noise(count);
            std::vector<float> out(static_cast<std::size_t>(count) * 3 + 64);
            for (auto _ : state)
                convert(in.data(), count, out.data(), static_cast<int>(out.size()));
        });
        const std::string what = name + ", " + peer + " against ours";
        if (std::string(peer) == "libsamplerate linear") {
            bench::require_gain(what, row, name + ", library", count < 480 ? 4.0 / 1.2 : 4.0);
        } else {
            bench::show_gain(what, row, name + ", library");
        }
    }
}

// ---- Levels and 16 bits ----

void register_volk(int count) {
    const std::string n = ", " + std::to_string(count);
    benchmark::RegisterBenchmark(("dot product" + n + ", volk").c_str(), [=](benchmark::State& state) {
        const auto in = bench::noise(count);
        float sum = 0.0F;
        for (auto _ : state) {
            volk_32f_x2_dot_prod_32f(&sum, in.data(), in.data(), static_cast<unsigned>(count));
            benchmark::DoNotOptimize(sum);
        }
    });
    bench::show_gain("sum of squares" + n + ", volk (single precision, any order) against ours",
                     "dot product" + n + ", volk", "levels" + n + ", library");
    benchmark::RegisterBenchmark(("to 16 bits" + n + ", volk").c_str(), [=](benchmark::State& state) {
        const auto in = bench::noise(count);
        std::vector<std::int16_t> out(in.size());
        for (auto _ : state) {
            volk_32f_s32f_convert_16i(out.data(), in.data(), 32767.0F, static_cast<unsigned>(count));
            benchmark::ClobberMemory();
        }
    });
    bench::show_gain("to 16 bits" + n + ", volk (rounding) against ours", "to 16 bits" + n + ", volk",
                     "to 16 bits" + n + ", library");
}

// ---- 10 ms at 16000 Hz through whole voice processors, with one thing switched on ----

enum class part { high_pass, gain_control, noise_suppression };

#ifdef WEBRTC_CONFIG
auto webrtc_with(part wanted) {
    webrtc::AudioProcessing::Config config;
    config.high_pass_filter.enabled = wanted == part::high_pass;
    config.gain_controller1.enabled = wanted == part::gain_control;
    config.gain_controller1.mode = webrtc::AudioProcessing::Config::GainController1::kAdaptiveDigital;
    config.noise_suppression.enabled = wanted == part::noise_suppression;
    rtc::scoped_refptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessingBuilder().Create());
    processing->ApplyConfig(config);
    return processing;
}
#else
auto webrtc_with(part wanted) {
    std::unique_ptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessing::Create());
    processing->high_pass_filter()->Enable(wanted == part::high_pass);
    processing->gain_control()->set_mode(webrtc::GainControl::kAdaptiveDigital);
    processing->gain_control()->Enable(wanted == part::gain_control);
    processing->noise_suppression()->Enable(wanted == part::noise_suppression);
    return processing;
}
#endif

void with_webrtc(benchmark::State& state, part wanted) {
    const auto processing = webrtc_with(wanted);
    const auto speech = bench::speech(SPEECH);
    const webrtc::StreamConfig mono(16000, 1);
    std::size_t position = 0;
    for (auto _ : state) {
        std::vector<float>::const_iterator from = speech.begin() + static_cast<std::ptrdiff_t>(position);
        float block[160];
        std::copy_n(from, 160, block);
        position = (position + 160) % (speech.size() - 160);
        float* channel = block;
        benchmark::DoNotOptimize(processing->ProcessStream(&channel, mono, mono, &channel));
    }
}

void with_speex(benchmark::State& state, int denoise, int gain) {
    const std::unique_ptr<SpeexPreprocessState, void (*)(SpeexPreprocessState*)> processing(
        speex_preprocess_state_init(160, 16000), speex_preprocess_state_destroy);
    speex_preprocess_ctl(processing.get(), SPEEX_PREPROCESS_SET_DENOISE, &denoise);
    speex_preprocess_ctl(processing.get(), SPEEX_PREPROCESS_SET_AGC, &gain);
    const auto speech = bench::speech(SPEECH);
    std::size_t position = 0;
    for (auto _ : state) {
        spx_int16_t block[160];
        for (std::size_t i = 0; i < 160; ++i)
            block[i] = static_cast<spx_int16_t>(speech[position + i] * 32767.0F);
        position = (position + 160) % (speech.size() - 160);
        benchmark::DoNotOptimize(speex_preprocess_run(processing.get(), block));
    }
}

void register_voice_processors() {
    for (const auto& [name, wanted] : {std::pair{"10 ms of high-pass, webrtc", part::high_pass},
                                       {"10 ms of gain control, webrtc", part::gain_control},
                                       {"10 ms of noise suppression, webrtc", part::noise_suppression}})
        benchmark::RegisterBenchmark(name, [wanted = wanted](benchmark::State& state) { with_webrtc(state, wanted); });
    benchmark::RegisterBenchmark("10 ms of noise suppression, speexdsp",
                                 [](benchmark::State& state) { with_speex(state, 1, 0); });
    benchmark::RegisterBenchmark("10 ms of gain control, speexdsp",
                                 [](benchmark::State& state) { with_speex(state, 0, 1); });
    for (const char* peer : {"webrtc", "speexdsp"}) {
        const std::string name = peer;
        bench::show_gain("10 ms of gain control at 16000 Hz, " + name + " against ours",
                         "10 ms of gain control, " + name, "gain control, 160, library");
        bench::show_gain("10 ms of noise suppression, " + name + " at 16000 Hz against ours at 48000 Hz",
                         "10 ms of noise suppression, " + name, "10 ms of noise suppression, library");
    }
    bench::show_gain("10 ms of high-pass at 16000 Hz, webrtc against ours", "10 ms of high-pass, webrtc",
                     "high-pass, 160, signal");
}

} // namespace

void bench::register_peers() {
    for (const int count : bench::sizes) {
        for (const auto& [in_rate, out_rate] : {std::pair{44100, 16000}, {16000, 48000}, {48000, 16000}}) {
            register_resamplers(count, in_rate, out_rate);
        }
        register_volk(count);
    }
    register_voice_processors();
}
