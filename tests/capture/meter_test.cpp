// The level meter: what it opens, what it measures, how it fails and what it says.
#include "fixture.h"
#include "read_reference.h"
#include "signals.h"

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <string>

using fake::device;
using fake::world;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using signals::nan;
constexpr const char* opened_line = "[audio_wrapper] meter_open device='(null)' (idx=0) rate=48000 frames=1440";

class meter : public with_fakes {
protected:
    static wrapper_audio_meter* hearing(const std::vector<float>& samples) {
        world().microphone = [samples](float* buffer, unsigned long count) {
            for (unsigned long i = 0; i < count; ++i)
                buffer[i] = samples[i % samples.size()];
        };
        wrapper_audio_meter* opened = wrapper_audio_meter_open(nullptr);
        forget();
        return opened;
    }

    static std::pair<float, float> levels_of(const std::vector<float>& samples) {
        wrapper_audio_meter* opened = hearing(samples);
        float peak = -7.0F;
        float rms = -7.0F;
        EXPECT_EQ(wrapper_audio_meter_read(opened, &peak, &rms), 1440);
        wrapper_audio_meter_close(opened);
        return {peak, rms};
    }

    static std::string opened_with(double rate) {
        world().devices[0].rate = rate;
        log();
        wrapper_audio_meter* opened = wrapper_audio_meter_open(nullptr);
        const std::string line = log();
        std::string stream;
        for (const std::string& call : calls()) {
            if (call.rfind("Pa_OpenStream", 0) == 0) stream = call.substr(call.find("rate="));
        }
        wrapper_audio_meter_close(opened);
        return line.substr(line.find("rate=")) + stream;
    }
};

TEST_F(meter, takes_an_initialisation_a_buffer_and_a_stream_and_gives_them_back) {
    wrapper_audio_meter* opened = wrapper_audio_meter_open(nullptr);
    ASSERT_NE(opened, nullptr);
    EXPECT_THAT(calls(),
                ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "Pa_GetDefaultInputDevice",
                            "Pa_GetDeviceInfo(0)", "calloc(2880, 4)", "Pa_GetDeviceInfo(0)",
                            "Pa_OpenStream(device=0, channels=1, paFloat32, latency=0.01, rate=48000, frames=1440, "
                            "paClipOff)",
                            "Pa_StartStream(1)", std::string("log ") + opened_line));
    wrapper_audio_meter_close(opened);
    EXPECT_THAT(calls(), ElementsAre("Pa_StopStream(1)", "Pa_CloseStream(1)", "free(2880, 4)", "free", "lock",
                                     "Pa_Terminate", "unlock", "log [audio_wrapper] meter_close"));
    EXPECT_EQ(log(), std::string(opened_line) + "\n[audio_wrapper] meter_close\n");
}

TEST_F(meter, lives_beside_a_capture_context) {
    wrapper_audio_ctx* ctx = wrapper_audio_init(16000, 0, nullptr);
    wrapper_audio_meter* opened = wrapper_audio_meter_open(nullptr);
    EXPECT_EQ(world().initialisations, 2);
    wrapper_audio_free(ctx);
    EXPECT_EQ(wrapper_audio_meter_read(opened, nullptr, nullptr), 1440);
    wrapper_audio_meter_close(opened);
}

TEST_F(meter, chooses_its_device_like_a_context_and_shows_the_id_as_requested) {
    world().devices = {device{"A"}, device{"B"}};
    const auto line = [](const char* id) {
        log();
        wrapper_audio_meter_close(wrapper_audio_meter_open(id));
        return log();
    };
    const std::string closed = "[audio_wrapper] meter_close\n";
    const std::string sizes = " rate=48000 frames=1440\n" + closed;
    EXPECT_EQ(line(nullptr), "[audio_wrapper] meter_open device='(null)' (idx=0)" + sizes);
    EXPECT_EQ(line(""), "[audio_wrapper] meter_open device='' (idx=0)" + sizes);
    EXPECT_EQ(line("Host:B"), "[audio_wrapper] meter_open device='Host:B' (idx=1)" + sizes);
    EXPECT_EQ(line("Host:C%n"), "[audio_wrapper] WARN device_id 'Host:C%n' не найден, fallback на default input\n"
                                "[audio_wrapper] meter_open device='Host:C%n' (idx=0)" +
                                    sizes);
}

TEST_F(meter, reads_30_ms_at_the_rounded_rate_but_at_least_64_samples) {
    const auto expected = [](const std::string& rate, int frames) {
        const std::string count = std::to_string(frames);
        return "rate=" + rate + " frames=" + count + "\nrate=" + rate + ", frames=" + count + ", paClipOff)";
    };
    EXPECT_EQ(opened_with(48000), expected("48000", 1440));
    EXPECT_EQ(opened_with(44100), expected("44100", 1323));
    EXPECT_EQ(opened_with(44099.5), expected("44100", 1323));
    EXPECT_EQ(opened_with(47999.4), expected("47999", 1439));
    EXPECT_EQ(opened_with(22050), expected("22050", 661));
    EXPECT_EQ(opened_with(16000), expected("16000", 480));
    EXPECT_EQ(opened_with(8000), expected("8000", 240));
    EXPECT_EQ(opened_with(2200), expected("2200", 66));
    EXPECT_EQ(opened_with(2167), expected("2167", 65));
    EXPECT_EQ(opened_with(2166), expected("2166", 64));
    EXPECT_EQ(opened_with(2134), expected("2134", 64));
    EXPECT_EQ(opened_with(2133), expected("2133", 64));
    EXPECT_EQ(opened_with(2000), expected("2000", 64));
    EXPECT_EQ(opened_with(0.25), expected("0", 64));
    for (const double unknown : {0.0, -8000.0, std::numeric_limits<double>::quiet_NaN(), 2147483647.5, 1e300}) {
        EXPECT_EQ(opened_with(unknown), expected("48000", 1440)) << unknown;
    }
    world().devices[0].has_info = false;
    EXPECT_EQ(opened_with(8000), expected("48000", 1440));
}

// ---- Opening fails ----

TEST_F(meter, says_when_portaudio_does_not_start) {
    fail_next("Pa_Initialize", paInternalError);
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "Pa_GetErrorText(-9986)",
                                     "log [audio_wrapper] meter_open: Pa_Initialize ОШИБКА: error -9986"));
}

TEST_F(meter, without_memory_says_nothing) {
    for (const int failing : {1, 2}) {
        world().allocations = 0;
        world().failing_allocations = {failing};
        EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
        std::vector<std::string> expected{"lock", "Pa_Initialize", "unlock", "calloc"};
        if (failing == 2) {
            expected.insert(expected.end(),
                            {"Pa_GetDefaultInputDevice", "Pa_GetDeviceInfo(0)", "calloc(2880, 4)", "free"});
        }
        expected.insert(expected.end(), {"lock", "Pa_Terminate", "unlock"});
        EXPECT_EQ(calls(), expected);
    }
}

TEST_F(meter, needs_an_input_device) {
    world().default_input = paNoDevice;
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    EXPECT_THAT(calls(), ElementsAre("lock", "Pa_Initialize", "unlock", "calloc", "Pa_GetDefaultInputDevice",
                                     "log [audio_wrapper] meter_open: нет устройства ввода", "free", "lock",
                                     "Pa_Terminate", "unlock"));
    log();
    EXPECT_EQ(wrapper_audio_meter_open("Host:Z"), nullptr);
    EXPECT_EQ(log(), "[audio_wrapper] WARN device_id 'Host:Z' не найден, fallback на default input\n"
                     "[audio_wrapper] meter_open: нет устройства ввода\n");
}

TEST_F(meter, tries_any_other_negative_device_and_reports_what_portaudio_says) {
    world().default_input = -2;
    fail_next("Pa_OpenStream", paInvalidDevice);
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    EXPECT_THAT(calls(), testing::IsSupersetOf({"Pa_OpenStream(device=-2, channels=1, paFloat32, latency=0.06, "
                                                "rate=48000, frames=1440, paClipOff)"}));
}

TEST_F(meter, gives_everything_back_when_the_stream_is_refused) {
    fail_next("Pa_OpenStream", paDeviceUnavailable);
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    const auto journal = calls();
    EXPECT_THAT(std::vector<std::string>(journal.end() - 7, journal.end()),
                ElementsAre("Pa_GetErrorText(-9985)",
                            "log [audio_wrapper] meter_open: open_input_stream ОШИБКА: error -9985", "free(2880, 4)",
                            "free", "lock", "Pa_Terminate", "unlock"));
    fail_next("Pa_StartStream", paInternalError);
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    EXPECT_THAT(log(), testing::EndsWith("meter_open: open_input_stream ОШИБКА: error -9986\n"));
}

// ---- Reading ----

TEST_F(meter, measures_peak_and_rms) {
    EXPECT_EQ(levels_of({0.5F}), std::make_pair(0.5F, 0.5F));
    EXPECT_EQ(levels_of({-0.25F, 0.25F}), std::make_pair(0.25F, 0.25F));
    EXPECT_EQ(levels_of({0.0F}), std::make_pair(0.0F, 0.0F));
    EXPECT_EQ(levels_of({-0.0F}), std::make_pair(0.0F, 0.0F));
    EXPECT_EQ(levels_of({1.5F}), std::make_pair(1.0F, 1.0F));
    std::vector<float> spike(1440, 0.0F);
    spike[700] = -1.5F;
    const auto [peak, rms] = levels_of(spike);
    EXPECT_EQ(peak, 1.0F);
    EXPECT_FLOAT_EQ(rms, 1.5F / std::sqrt(1440.0F));
}

TEST_F(meter, ignores_a_nan_in_the_peak_and_shows_it_in_the_rms) {
    std::vector<float> samples(1440, -0.5F);
    samples[3] = nan;
    const auto [peak, rms] = levels_of(samples);
    EXPECT_EQ(peak, 0.5F);
    EXPECT_TRUE(std::isnan(rms));
}

TEST_F(meter, equals_the_reference_bit_for_bit) {
    std::mt19937 random(7);
    std::normal_distribution<float> noise(0.0F, 0.2F);
    for (int round = 0; round < 50; ++round) {
        std::vector<float> samples(1440);
        const float scale = std::pow(10.0F, static_cast<float>(round % 40) - 38.0F);
        for (float& x : samples)
            x = noise(random) * scale;
        const auto [peak, rms] = levels_of(samples);
        EXPECT_EQ(std::bit_cast<uint32_t>(peak), std::bit_cast<uint32_t>(reference::peak(samples)));
        EXPECT_EQ(std::bit_cast<uint32_t>(rms), std::bit_cast<uint32_t>(reference::rms(samples)));
    }
}

TEST_F(meter, writes_each_level_only_where_it_is_wanted) {
    wrapper_audio_meter* opened = hearing({0.5F});
    float level = -7.0F;
    EXPECT_EQ(wrapper_audio_meter_read(opened, &level, nullptr), 1440);
    EXPECT_EQ(level, 0.5F);
    level = -7.0F;
    EXPECT_EQ(wrapper_audio_meter_read(opened, nullptr, &level), 1440);
    EXPECT_EQ(level, 0.5F);
    EXPECT_EQ(wrapper_audio_meter_read(opened, nullptr, nullptr), 1440);
    EXPECT_THAT(calls(), ElementsAre("Pa_ReadStream(1, 1440)", "Pa_ReadStream(1, 1440)", "Pa_ReadStream(1, 1440)"));
    wrapper_audio_meter_close(opened);
}

TEST_F(meter, writes_the_peak_before_the_rms) {
    wrapper_audio_meter* opened = hearing({0.5F, 0.0F});
    float both = -7.0F;
    EXPECT_EQ(wrapper_audio_meter_read(opened, &both, &both), 1440);
    EXPECT_FLOAT_EQ(both, std::sqrt(0.125F));
    wrapper_audio_meter_close(opened);
}

TEST_F(meter, logs_a_run_of_failures_once_and_writes_no_level) {
    const std::string line = "[audio_wrapper] meter_read Pa_ReadStream ОШИБКА: error -9999 (далее подавляется)\n";
    wrapper_audio_meter* opened = hearing({0.5F});
    float peak = -7.0F;
    float rms = -8.0F;
    world().results["Pa_ReadStream"] = {-9999, -9999, -9999};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(wrapper_audio_meter_read(opened, &peak, &rms), -1);
    EXPECT_EQ(log(), line);
    EXPECT_EQ(peak, -7.0F);
    EXPECT_EQ(rms, -8.0F);
    EXPECT_EQ(wrapper_audio_meter_read(opened, nullptr, nullptr), 1440); // a good read re-arms the line
    world().results["Pa_ReadStream"] = {-9999, paInputOverflowed, -9999};
    EXPECT_EQ(wrapper_audio_meter_read(opened, &peak, &rms), -1);
    EXPECT_EQ(log(), line);
    EXPECT_EQ(wrapper_audio_meter_read(opened, &peak, &rms), 1440); // so does an overflow, which counts as good
    EXPECT_EQ(peak, 0.5F);
    EXPECT_EQ(rms, 0.5F);
    EXPECT_EQ(wrapper_audio_meter_read(opened, &peak, &rms), -1);
    EXPECT_EQ(log(), line);
    wrapper_audio_meter_close(opened);
}

TEST_F(meter, two_meters_count_their_failures_apart) {
    wrapper_audio_meter* first = hearing({0.5F});
    wrapper_audio_meter* second = wrapper_audio_meter_open(nullptr);
    log();
    world().results["Pa_ReadStream"] = {-9999, -9999};
    wrapper_audio_meter_read(first, nullptr, nullptr);
    EXPECT_NE(log(), "");
    wrapper_audio_meter_read(second, nullptr, nullptr);
    EXPECT_NE(log(), "");
    wrapper_audio_meter_close(first);
    wrapper_audio_meter_close(second);
}

TEST_F(meter, accepts_null) {
    float level = -7.0F;
    EXPECT_EQ(wrapper_audio_meter_read(nullptr, &level, &level), -1);
    wrapper_audio_meter_close(nullptr);
    EXPECT_EQ(level, -7.0F);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(meter, ignores_the_results_of_stopping_and_closing) {
    wrapper_audio_meter* opened = hearing({0.5F});
    fail_next("Pa_StopStream", paInternalError);
    fail_next("Pa_CloseStream", paInternalError);
    wrapper_audio_meter_close(opened);
    EXPECT_EQ(log(), "[audio_wrapper] meter_close\n");
}

} // namespace
