// Reading and metering through the real PortAudio and the real RNNoise: every sample and level against the plain
// reference, fed with the samples of the file that the microphone hears.
#include "guarded_buffer.h"
#include "read_reference.h"
#include "sounds.h"
#include "with_microphones.h"

#include <rnnoise.h>

#include <bit>
#include <memory>
#include <thread>

namespace {

uint32_t bits(float x) {
    return std::bit_cast<uint32_t>(x);
}

// What reads of a microphone should give.
class expected_reads {
public:
    expected_reads(const std::vector<int16_t>& sound, int device_rate, int output_rate, bool denoise)
        : sound_(sound), device_rate_(device_rate), output_rate_(output_rate), denoise_(denoise) {}

    reference::block next(int32_t ms, int32_t capacity) {
        std::vector<float> samples = sound_.next(static_cast<size_t>(device_rate_ * std::min(ms, 100) / 1000));
        if (denoise_ && device_rate_ == 48000) {
            samples = reference::denoised(
                samples, [this](float* frame) { rnnoise_process_frame(denoiser_.get(), frame, frame); });
        }
        return reference::measured(reference::at_rate(samples, device_rate_, output_rate_, capacity));
    }

    bool ended() const { return sound_.ended(); }

private:
    struct destroy {
        void operator()(DenoiseState* denoiser) const { rnnoise_destroy(denoiser); }
    };

    playing sound_;
    int device_rate_;
    int output_rate_;
    bool denoise_;
    std::unique_ptr<DenoiseState, destroy> denoiser_{rnnoise_create(nullptr)};
};

struct outcome {
    int32_t count = -2;
    std::vector<int16_t> pcm;
    float rms = -7.0F;
    float peak = -7.0F;
};

outcome read_once(const context& ctx, int32_t ms, int32_t capacity) {
    guarded_buffer<int16_t> pcm(static_cast<size_t>(capacity));
    outcome result;
    result.count = wrapper_audio_read(ctx.get(), ms, pcm.data(), capacity, &result.rms, &result.peak);
    result.pcm.assign(pcm.data(), pcm.data() + std::max(result.count, 0));
    return result;
}

void expect_next(expected_reads& expected, const context& ctx, int32_t ms, int32_t capacity) {
    const reference::block block = expected.next(ms, capacity);
    const outcome result = read_once(ctx, ms, capacity);
    ASSERT_EQ(result.count, static_cast<int32_t>(block.pcm.size())) << ms << " ms";
    ASSERT_EQ(result.pcm, block.pcm) << ms << " ms";
    ASSERT_EQ(bits(result.rms), bits(block.rms)) << result.rms << " and not " << block.rms;
    ASSERT_EQ(bits(result.peak), bits(block.peak)) << result.peak << " and not " << block.peak;
}

// Multiples of 10 ms and others, none at all, more than a read can give, and buffers that are too small.
void expect_all(expected_reads& expected, const context& ctx) {
    constexpr int32_t durations[] = {10, 20, 100, 7, 30, 25, 0, 1, 150, 50, 33, 10, 99, 15};
    for (int round = 0; round < 2; round += expected.ended() ? 1 : 0) { // and once more behind the end
        int reads = 0;
        for (const int32_t ms : durations) {
            SCOPED_TRACE(reads);
            ASSERT_NO_FATAL_FAILURE(expect_next(expected, ctx, ms, ++reads % 6 == 5 ? 333 : 4800));
        }
    }
}

class reading : public with_microphones {
protected:
    // ALSA's own file plugin as the default microphone. It must not be made to convert, or it loses samples: the file
    // holds what PortAudio asks for, 32-bit floats. Behind its end the plugin repeats itself, which the silence is
    // there to prevent.
    std::string file_plugin(const std::vector<int16_t>& sound, int rate) {
        std::vector<float> samples = as_floats(sound);
        samples.resize(samples.size() + static_cast<size_t>(2 * rate), 0.0F);
        return "pcm.mic { type file slave.pcm { type null } file \"/dev/null\" format \"raw\" infile \"" +
               sound_file(samples) + "\" }\n" +
               "pcm.default { type plug slave { pcm mic channels 1 format FLOAT_LE rate " + std::to_string(rate) +
               " } }\n";
    }

    // The test's sound as the default and only microphone.
    void configure_microphone(const std::vector<int16_t>& sound, int rate) {
        configure(microphone("default", sound_file(sound), rate));
    }

    // Each way from a microphone into PortAudio: 16-bit samples, 16-bit samples that ALSA turns into floats, floats.
    void expect_as_reference(const std::vector<int16_t>& sound, int device_rate, int output_rate, bool denoise) {
        const std::string device = microphone("mic", sound_file(sound), device_rate);
        const std::string converting = "pcm.default { type plug slave.pcm mic }\n";
        const std::string configurations[] = {device + unusable, device + converting, file_plugin(sound, device_rate)};
        for (const std::string& configuration : configurations) {
            SCOPED_TRACE(std::to_string(device_rate) + " to " + std::to_string(output_rate) + ", " + configuration);
            configure(configuration);
            const context ctx(wrapper_audio_init(output_rate, denoise ? 1 : 0, nullptr));
            ASSERT_NE(ctx, nullptr);
            expected_reads expected(sound, device_rate, output_rate, denoise);
            expect_all(expected, ctx);
        }
    }
};

std::vector<int16_t> speech_in_noise() {
    std::ifstream file(SPEECH_IN_NOISE, std::ios::binary);
    std::vector<int16_t> sound(288000);
    file.read(reinterpret_cast<char*>(sound.data()), static_cast<std::streamsize>(sound.size() * sizeof(int16_t)));
    if (!file || file.get() != EOF) throw std::runtime_error("not six seconds of sound: " SPEECH_IN_NOISE);
    return sound;
}

// ---- Samples and levels, bit for bit ----

TEST_F(reading, denoised_at_the_devices_rate) {
    expect_as_reference(hostile_speech(48000), 48000, 48000, true);
}

TEST_F(reading, denoised_down_to_16000) {
    expect_as_reference(hostile_speech(48000), 48000, 16000, true);
}

TEST_F(reading, denoised_down_to_44100) {
    expect_as_reference(hostile_speech(48000), 48000, 44100, true);
}

TEST_F(reading, as_captured_at_the_devices_rate) {
    expect_as_reference(hostile_speech(48000), 48000, 48000, false);
}

TEST_F(reading, as_captured_down_to_16000) {
    expect_as_reference(hostile_speech(48000), 48000, 16000, false);
}

TEST_F(reading, from_44100_down_to_16000) {
    expect_as_reference(hostile_speech(44100), 44100, 16000, false);
}

TEST_F(reading, from_16000_up_to_48000) {
    expect_as_reference(hostile_speech(16000), 16000, 48000, false);
}

TEST_F(reading, other_devices_than_those_at_48000_passes_undenoised) {
    expect_as_reference(hostile_speech(44100), 44100, 44100, true);
    expect_as_reference(hostile_speech(44100), 44100, 16000, true);
    expect_as_reference(hostile_speech(16000), 16000, 16000, true);
}

TEST_F(reading, speech_in_noise_denoised) {
    expect_as_reference(speech_in_noise(), 48000, 48000, true);
    expect_as_reference(speech_in_noise(), 48000, 16000, true);
}

TEST_F(reading, from_the_file_microphone_in_scripts) {
    const std::vector<int16_t> sound = speech_in_noise();
    const std::string command = "'" FILE_MICROPHONE "' '" SPEECH_IN_NOISE "' '" + directory().string() + "' >'" +
                                directory().string() + "/name'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    std::string name;
    std::getline(std::ifstream(directory() / "name"), name);
    use_configuration(name);
    const context ctx(wrapper_audio_init(16000, 1, nullptr));
    ASSERT_NE(ctx, nullptr);
    expected_reads expected(sound, 48000, 16000, true);
    expect_all(expected, ctx);
}

TEST_F(reading, silence_behind_the_end) {
    const std::vector<int16_t> sound(100, 12345);
    configure_microphone(sound, 48000);
    const context ctx(wrapper_audio_init(48000, 0, nullptr));
    ASSERT_NE(ctx, nullptr);
    outcome heard = read_once(ctx, 10, 480);
    ASSERT_EQ(heard.count, 480);
    EXPECT_EQ(heard.pcm[99], 12344) << "12345 * 32767 / 32768, toward zero";
    EXPECT_EQ(heard.pcm[100], 0);
    EXPECT_EQ(heard.peak, 12345.0F / 32768.0F);
    heard = read_once(ctx, 100, 4800);
    EXPECT_EQ(heard.pcm, std::vector<int16_t>(4800, 0));
    EXPECT_EQ(bits(heard.rms), bits(0.0F));
    EXPECT_EQ(bits(heard.peak), bits(0.0F));
}

// ---- What denoising is for ----

TEST_F(reading, denoised_loses_the_noise_and_keeps_the_voice) {
    const std::vector<int16_t> sound = speech_in_noise();
    configure_microphone(sound, 48000);
    // The levels in dB of what lies between two times, in tenths of a second.
    const auto level_between = [](bool denoise, int first, int last) {
        const context ctx(wrapper_audio_init(48000, denoise ? 1 : 0, nullptr));
        double power = 0.0;
        for (int tenth = 0; tenth < last; ++tenth) {
            const outcome heard = read_once(ctx, 100, 4800);
            if (tenth >= first) power += static_cast<double>(heard.rms) * static_cast<double>(heard.rms);
        }
        return 10.0 * std::log10(power / (last - first));
    };
    EXPECT_LT(level_between(true, 4, 8), level_between(false, 4, 8) - 15.0) << "before the first word";
    EXPECT_NEAR(level_between(true, 10, 30), level_between(false, 10, 30), 2.0) << "during the first sentence";
}

// ---- The life of a context ----

TEST_F(reading, begins_anew_with_each_open) {
    const std::vector<int16_t> sound = hostile_speech(48000);
    configure_microphone(sound, 48000);
    const context ctx(wrapper_audio_arm(16000, 0, nullptr));
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(read_once(ctx, 10, 480).count, -1) << "armed only";
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(wrapper_audio_open(ctx.get()), 0);
        expected_reads expected(sound, 48000, 16000, false);
        expect_next(expected, ctx, 70, 4800);
        ASSERT_EQ(wrapper_audio_open(ctx.get()), 0) << "changes nothing";
        expect_next(expected, ctx, 30, 4800);
        if (round == 1) wrapper_audio_stop(ctx.get());
        wrapper_audio_release_stream(ctx.get());
        EXPECT_EQ(read_once(ctx, 10, 480).count, -1) << "released";
    }
}

TEST_F(reading, a_denoiser_remembers_across_opens) {
    const std::vector<int16_t> sound = hostile_speech(48000);
    configure_microphone(sound, 48000);
    const context ctx(wrapper_audio_init(48000, 1, nullptr));
    ASSERT_NE(ctx, nullptr);
    // The stream begins anew, the denoiser does not: for it the file is heard twice in a row.
    std::vector<int16_t> twice(sound.begin(), sound.begin() + 4800);
    twice.insert(twice.end(), sound.begin(), sound.begin() + 4800);
    expected_reads expected(twice, 48000, 48000, true);
    expect_next(expected, ctx, 100, 4800);
    wrapper_audio_release_stream(ctx.get());
    ASSERT_EQ(wrapper_audio_open(ctx.get()), 0);
    expect_next(expected, ctx, 100, 4800);
}

TEST_F(reading, two_contexts_and_a_meter_hear_the_same_microphone) {
    const std::vector<int16_t> sound = hostile_speech(48000);
    configure_microphone(sound, 48000);
    context denoised(wrapper_audio_init(16000, 1, nullptr));
    const context captured(wrapper_audio_init(44100, 0, nullptr));
    const level_meter meter(wrapper_audio_meter_open(nullptr));
    ASSERT_TRUE(denoised != nullptr && captured != nullptr && meter != nullptr);
    expected_reads expected_denoised(sound, 48000, 16000, true);
    expected_reads expected_captured(sound, 48000, 44100, false);
    playing metered(sound);
    for (int i = 0; i < 10; ++i) {
        expect_next(expected_denoised, denoised, 40, 4800);
        expect_next(expected_captured, captured, 50, 4800);
        float peak = -7.0F;
        ASSERT_EQ(wrapper_audio_meter_read(meter.get(), &peak, nullptr), 1440);
        EXPECT_EQ(peak, reference::peak(metered.next(1440)));
    }
    denoised.reset();
    expect_next(expected_captured, captured, 50, 4800);
}

TEST_F(reading, on_two_threads_at_once) {
    const std::vector<int16_t> sound = hostile_speech(48000);
    configure_microphone(sound, 48000);
    const context first(wrapper_audio_init(48000, 1, nullptr));
    const context second(wrapper_audio_init(16000, 1, nullptr));
    ASSERT_TRUE(first != nullptr && second != nullptr);
    std::thread other([&] {
        expected_reads expected(sound, 48000, 48000, true);
        expect_all(expected, first);
    });
    expected_reads expected(sound, 48000, 16000, true);
    expect_all(expected, second);
    other.join();
}

TEST_F(reading, many_contexts_in_a_row_leaves_no_descriptor_open) {
    configure_microphone(hostile_speech(48000), 48000);
    const auto descriptors = [] {
        int count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            ++count;
        return count;
    };
    const auto live = [&] {
        const context ctx(wrapper_audio_init(16000, 1, nullptr));
        ASSERT_EQ(read_once(ctx, 10, 480).count, 160);
        const int capturing = descriptors();
        wrapper_audio_release_stream(ctx.get());
        const int armed = descriptors();
        ASSERT_LT(armed, capturing) << "an open stream holds a descriptor";
        ASSERT_EQ(wrapper_audio_open(ctx.get()), 0);
        ASSERT_EQ(descriptors(), capturing);
        ASSERT_EQ(read_once(ctx, 10, 480).count, 160);
        level_meter meter(wrapper_audio_meter_open(""));
        ASSERT_GT(descriptors(), capturing);
        ASSERT_EQ(wrapper_audio_meter_read(meter.get(), nullptr, nullptr), 1440);
        meter.reset();
        ASSERT_EQ(descriptors(), capturing);
        wrapper_audio_free_text(wrapper_audio_list_devices_json());
        ASSERT_EQ(wrapper_audio_capabilities(), 3);
    };
    live(); // what is opened once and for all is open now
    const int before = descriptors();
    for (int i = 0; i < 50; ++i)
        ASSERT_NO_FATAL_FAILURE(live());
    EXPECT_EQ(descriptors(), before);
}

// ---- The meter ----

TEST_F(reading, the_meter_measures_blocks_of_30_ms) {
    for (const int rate : {48000, 44100, 16000}) {
        SCOPED_TRACE(rate);
        const std::vector<int16_t> sound = hostile_speech(rate);
        configure_microphone(sound, rate);
        level_meter meter(wrapper_audio_meter_open("ALSA:default"));
        ASSERT_NE(meter, nullptr);
        const int frames = rate * 30 / 1000;
        EXPECT_EQ(log(), "[audio_wrapper] meter_open device='ALSA:default' (idx=0) rate=" + std::to_string(rate) +
                             " frames=" + std::to_string(frames) + "\n");
        playing metered(sound);
        for (int behind_the_end = 0; behind_the_end < 3; behind_the_end += metered.ended() ? 1 : 0) {
            const std::vector<float> block = metered.next(static_cast<size_t>(frames));
            float peak = -7.0F;
            float rms = -7.0F;
            ASSERT_EQ(wrapper_audio_meter_read(meter.get(), &peak, &rms), frames);
            ASSERT_EQ(bits(peak), bits(reference::peak(block)));
            ASSERT_EQ(bits(rms), bits(reference::rms(block)));
        }
        meter.reset();
        EXPECT_EQ(log(), "[audio_wrapper] meter_close\n");
    }
}

} // namespace
