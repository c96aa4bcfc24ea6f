// Lives long with the library: reads, opens, closes and lists, many times, and looks whether the process grows.
//
//     soak_calls READS CYCLES UNPLUGGED
//
// runs so many of each; there are as many lists as cycles. The microphones are those that scripts/soak configures. Exits with 1 when something grew, and
// with 2 when a call did not do what it should.
#include "figures.h"
#include "wrapper_audio.h"

#include <portaudio.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

void require(bool good, const std::string& what) {
    if (!good) throw std::runtime_error(what);
}

struct free_context {
    void operator()(wrapper_audio_ctx* ctx) const { wrapper_audio_free(ctx); }
};
struct close_meter {
    void operator()(wrapper_audio_meter* meter) const { wrapper_audio_meter_close(meter); }
};
using context = std::unique_ptr<wrapper_audio_ctx, free_context>;
using level_meter = std::unique_ptr<wrapper_audio_meter, close_meter>;

constexpr const char* cd_microphone = "ALSA:cd"; // 44100 Hz

context capture(int output_rate, int denoise, const char* device_id) {
    context ctx(wrapper_audio_init(output_rate, denoise, device_id));
    require(ctx != nullptr, "init failed");
    return ctx;
}

level_meter meter_of(const char* device_id) {
    level_meter meter(wrapper_audio_meter_open(device_id));
    require(meter != nullptr, "meter_open failed");
    return meter;
}

void read_meter(const level_meter& meter) {
    float peak = -1.0F;
    float rms = -1.0F;
    require(wrapper_audio_meter_read(meter.get(), &peak, &rms) > 0, "meter_read failed");
    require(peak >= 0.0F && peak <= 1.0F && rms >= 0.0F && rms <= 1.0F, "a level out of range");
}

// ---- Reads ----

// A capture whose reads are checked: how many samples, how loud.
class checked_capture {
public:
    checked_capture(const char* device_id, int device_rate, int output_rate, int denoise)
        : ctx_(capture(output_rate, denoise, device_id)), device_rate_(device_rate), output_rate_(output_rate) {}

    void read(int32_t ms) {
        float rms = -1.0F;
        float peak = -1.0F;
        const int32_t count =
            wrapper_audio_read(ctx_.get(), ms, pcm_.data(), static_cast<int32_t>(pcm_.size()), &rms, &peak);
        require(count == expected(ms), "a read of " + std::to_string(ms) + " ms gave " + std::to_string(count));
        require(rms >= 0.0F && rms <= 1.0F && peak >= 0.0F && peak <= 1.0F, "a level out of range");
        milliseconds_ += std::min(ms, 100);
        peaks_ += static_cast<double>(peak);
    }

    long milliseconds() const { return milliseconds_; }
    bool heard_something() const { return peaks_ > 0.0; }

private:
    int32_t expected(int32_t ms) const {
        const long captured = long{device_rate_} * std::min(ms, 100) / 1000;
        return static_cast<int32_t>(captured * output_rate_ / device_rate_);
    }

    context ctx_;
    int device_rate_;
    int output_rate_;
    std::array<int16_t, 5000> pcm_{};
    long milliseconds_ = 0;
    double peaks_ = 0.0;
};

// Each of eight captures is read as often as the others, in an order and for durations drawn by lot; a meter is read on
// a thread of its own meanwhile, once in ten reads.
bool soak_reads(long count, const soak::figures& start) {
    checked_capture captures[] = {
        {"ALSA:studio", 48000, 16000, 1}, // these two are denoised
        {"ALSA:studio", 48000, 48000, 1}, {"ALSA:studio", 48000, 16000, 0}, {"ALSA:studio", 48000, 44100, 0},
        {cd_microphone, 44100, 16000, 1}, // off 48000 Hz nothing is denoised
        {cd_microphone, 44100, 44100, 0}, {cd_microphone, 44100, 48000, 0}, {"ALSA:default", 48000, 11025, 0},
    };
    constexpr int32_t durations[] = {10, 20, 100, 7, 30, 25, 0, 1, 150, 50, 33, 10, 99, 15};
    std::mt19937 lot(1);
    std::uniform_int_distribution<std::size_t> any_capture(0, std::size(captures) - 1);
    std::uniform_int_distribution<std::size_t> any_duration(0, std::size(durations) - 1);

    const level_meter meter = meter_of(cd_microphone);
    std::counting_semaphore<> tickets(0);
    std::string trouble;
    std::thread metering([&, meter_reads = count / 10] {
        try {
            for (long i = 0; i < meter_reads; ++i) {
                tickets.acquire();
                read_meter(meter);
            }
        } catch (const std::exception& error) {
            trouble = error.what();
        }
        tickets.acquire(); // stays, to be counted, until the last sample is taken
    });

    soak::series figures(std::to_string(count) + " reads and " + std::to_string(count / 10) + " of a meter", count,
                         start);
    long denoised = 0;
    for (long i = 1; i <= count; ++i) {
        const std::size_t which = any_capture(lot);
        captures[which].read(durations[any_duration(lot)]);
        if (which < 2) ++denoised;
        if (i % 10 == 0) tickets.release();
        figures.after(i);
    }
    tickets.release();
    metering.join();
    require(trouble.empty(), trouble);

    const bool flat = figures.report();
    long milliseconds = 0;
    for (const checked_capture& each : captures) {
        require(each.heard_something(), "a microphone was silent");
        milliseconds += each.milliseconds();
    }
    std::printf("%ld of them denoised; %.1f hours of sound\n", denoised, static_cast<double>(milliseconds) / 3.6e6);
    return flat;
}

// ---- What repeats ----

template <typename Step>
soak::series repeated(const std::string& name, long count, const soak::figures& start, Step step) {
    soak::series figures(std::to_string(count) + name, count, start);
    for (long i = 1; i <= count; ++i) {
        step(i);
        figures.after(i);
    }
    return figures;
}

// Flat, unless JACK was killed in the middle of something once: libjack then fails to open its database of client
// names, /dev/shm/jack_db-UID, and forgets 3 KB each time that PortAudio starts.
soak::figures allowed_for_starts(long count, const soak::figures& start) {
    const soak::series bare = repeated(" starts and ends of bare PortAudio", count, start, [](long) {
        require(Pa_Initialize() == paNoError, "Pa_Initialize failed");
        Pa_Terminate();
    });
    bare.report_unjudged();
    return soak::allowed_beside(bare);
}

// ---- Cycles ----

// The ways from nothing to a capture and back.
void cycle(long which) {
    const int denoise = which % 2 == 0 ? 1 : 0;
    const char* device_id = which % 3 == 0 ? cd_microphone : nullptr;
    std::array<int16_t, 480> pcm{};
    context ctx(wrapper_audio_arm(16000, denoise, device_id));
    require(ctx != nullptr, "arm failed");
    require(wrapper_audio_capabilities() == 3, "no device can capture");
    require(wrapper_audio_open(ctx.get()) == 0, "open failed");
    require(wrapper_audio_read(ctx.get(), 10, pcm.data(), 480, nullptr, nullptr) == 160, "read failed");
    switch (which % 4) {
    case 0: // freed while it captures
        return;
    case 1:
        wrapper_audio_stop(ctx.get());
        return;
    case 2:
        wrapper_audio_release_stream(ctx.get());
        return;
    default:
        wrapper_audio_stop(ctx.get());
        wrapper_audio_release_stream(ctx.get());
        require(wrapper_audio_open(ctx.get()) == 0, "the second open failed");
        read_meter(meter_of(cd_microphone));
    }
}

// ---- Lists ----

struct free_text {
    void operator()(char* text) const { wrapper_audio_free_text(text); }
};
using device_list = std::unique_ptr<char, free_text>;

bool soak_lists(long count, const soak::figures& start, const soak::figures& allowed) {
    const device_list first(wrapper_audio_list_devices_json());
    require(first != nullptr && std::strstr(first.get(), cd_microphone) != nullptr, "the list lacks a microphone");
    const auto list = [&](long) {
        const device_list again(wrapper_audio_list_devices_json());
        require(again != nullptr && std::strcmp(again.get(), first.get()) == 0, "another list");
    };
    return repeated(" lists", count, start, list).report(allowed);
}

// ---- Unplugged ----
// PortAudio never frees the stream of a device that is gone. What we lose must be what bare PortAudio loses.

constexpr const char* unplugged_microphone = "unplugged"; // after 1000 samples at 48000 Hz

void lose_context() {
    const context ctx = capture(16000, 1, (std::string("ALSA:") + unplugged_microphone).c_str());
    std::array<int16_t, 1600> pcm{};
    require(wrapper_audio_read(ctx.get(), 100, pcm.data(), 1600, nullptr, nullptr) == -1, "it is still there");
}

void lose_stream() {
    require(Pa_Initialize() == paNoError, "Pa_Initialize failed");
    PaStreamParameters input{};
    while (std::strcmp(Pa_GetDeviceInfo(input.device)->name, unplugged_microphone) != 0)
        ++input.device;
    input.channelCount = 1;
    input.sampleFormat = paFloat32;
    input.suggestedLatency = Pa_GetDeviceInfo(input.device)->defaultLowInputLatency;
    PaStream* stream = nullptr;
    require(Pa_OpenStream(&stream, &input, nullptr, 48000.0, 1440, paClipOff, nullptr, nullptr) == paNoError &&
                Pa_StartStream(stream) == paNoError,
            "PortAudio opens nothing");
    std::vector<float> samples(4800);
    require(Pa_ReadStream(stream, samples.data(), 4800) != paNoError, "it is still there");
    Pa_StopStream(stream);
    Pa_CloseStream(stream);
    Pa_Terminate();
}

bool soak_unplugged(long count, const soak::figures& start) {
    const soak::series bare = repeated(" unplugged devices, bare PortAudio", count, start, [](long) { lose_stream(); });
    bare.report_unjudged();
    return repeated(" unplugged devices", count, start, [](long) { lose_context(); })
        .report(soak::allowed_beside(bare));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: soak_calls READS CYCLES UNPLUGGED\n", stderr);
        return 2;
    }
    try {
        const soak::figures start = soak::figures_now();
        long counts[3];
        std::transform(argv + 1, argv + 4, counts, [](const char* text) { return std::stol(text); });
        const auto [reads, cycles, unplugged] = counts;
        bool flat = reads < 1 || soak_reads(reads, start);
        if (cycles > 0) {
            const soak::figures allowed = allowed_for_starts(cycles, start);
            flat &= repeated(" cycles from nothing", cycles, start, cycle).report(allowed);
            flat &= soak_lists(cycles, start, allowed);
            // PortAudio closes what was forgotten when it ends, so that a lost stream shows only while it runs.
            const context other = capture(16000, 1, nullptr);
            flat &= repeated(" cycles beside a capture", cycles, start, cycle).report();
        }
        if (unplugged > 0) flat &= soak_unplugged(unplugged, start);
        return flat ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("soak: FAILED: %s\n", error.what());
        return 2;
    }
}
